// document.cc -- the object tree and the plain JSON of CreateObject (the
// stored document is read by document_reader.cc, written by
// document_writer.cc).
#include "document.h"

#include <algorithm>
#include <limits>

#include <nlohmann/json.hpp>

namespace configstore {
namespace detail {

using Json = nlohmann::ordered_json;

// ---- sub-object keys --------------------------------------------------------

NodePtr SubKey::Find(const std::string &childId) const {
   if (!byId_.empty()) {
      auto it = byId_.find(childId);
      return it == byId_.end() ? nullptr : it->second;
   }
   for (const NodePtr &entry : entries) {
      if (entry->id == childId) {
         return entry;
      }
   }
   return nullptr;
}

void SubKey::Add(NodePtr child) {
   entries.push_back(std::move(child));
   if (!byId_.empty()) {
      byId_.emplace(entries.back()->id, entries.back());
   } else if (entries.size() > kIndexFrom) {
      byId_.reserve(entries.size() * 2);
      for (const NodePtr &entry : entries) {
         byId_.emplace(entry->id, entry);
      }
   }
}

bool SubKey::Remove(const std::string &childId) {
   auto it = std::find_if(entries.begin(), entries.end(),
                          [&](const NodePtr &n) { return n->id == childId; });
   if (it == entries.end()) {
      return false;
   }
   entries.erase(it);
   byId_.erase(childId);
   return true;
}

void SubKey::Clear() {
   entries.clear();
   byId_.clear();
}

// ---- tree -----------------------------------------------------------------

Value *Node::FindValue(const std::string &key) {
   for (auto &entry : values) {
      if (entry.first == key) {
         return &entry.second;
      }
   }
   return nullptr;
}

Value &Node::PutValue(const std::string &key) {
   if (Value *v = FindValue(key)) {
      return *v;
   }
   values.emplace_back(key, Value{});
   return values.back().second;
}

bool Node::RemoveValue(const std::string &key) {
   auto it = std::find_if(values.begin(), values.end(),
                          [&](const std::pair<std::string, Value> &e) { return e.first == key; });
   if (it == values.end()) {
      return false;
   }
   values.erase(it);
   return true;
}

SubKey *Node::FindSub(const std::string &key) {
   for (auto &sub : subs) {
      if (sub.key == key) {
         return &sub;
      }
   }
   return nullptr;
}

NodePtr Node::FindChild(const std::string &key, const std::string &childId) {
   SubKey *sub = FindSub(key);
   return sub == nullptr ? nullptr : sub->Find(childId);
}

NodePtr Node::AddChild(const std::string &key, const std::string &childId) {
   SubKey *sub = FindSub(key);
   if (sub == nullptr) {
      subs.emplace_back();
      sub = &subs.back();
      sub->key = key;
   } else if (NodePtr existing = sub->Find(childId)) {
      return existing;
   }
   auto child = std::make_shared<Node>();
   child->id = childId;
   sub->Add(child);
   return child;
}

bool Node::RemoveChild(const std::string &key, const std::string &childId) {
   SubKey *sub = FindSub(key);
   if (sub == nullptr || !sub->Remove(childId)) {
      return false;
   }
   if (sub->entries.empty()) {
      RemoveSub(key);
   }
   return true;
}

bool Node::RemoveSub(const std::string &key) {
   auto it = std::find_if(subs.begin(), subs.end(), [&](const SubKey &s) { return s.key == key; });
   if (it == subs.end()) {
      return false;
   }
   subs.erase(it);
   return true;
}

// ---- values ---------------------------------------------------------------

namespace {

int64_t IntegerOf(const Json &j) {
   if (j.is_number_unsigned()) {
      uint64_t u = j.get<uint64_t>();
      if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
         throw DocumentError("integer out of range");
      }
      return static_cast<int64_t>(u);
   }
   return j.get<int64_t>();
}

bool IsInteger(const Json &j) {
   return j.is_number_integer();  // signed or unsigned, never a float
}

// A JSON value that is a scalar or a list of scalars; throws otherwise.
Value ValueFromJson(const Json &j) {
   Value v;
   if (j.is_string()) {
      v.kind = Kind::kString;
      v.str = j.get<std::string>();
   } else if (j.is_boolean()) {
      v.kind = Kind::kBool;
      v.num = j.get<bool>() ? 1 : 0;
   } else if (IsInteger(j)) {
      v.kind = Kind::kInt;
      v.num = IntegerOf(j);
   } else if (j.is_array()) {
      if (j.empty()) {
         v.kind = Kind::kEmptyList;
      } else if (j.front().is_string()) {
         v.kind = Kind::kStringList;
         for (const auto &e : j) {
            if (!e.is_string()) {
               throw DocumentError("list mixes strings and other values");
            }
            v.strs.push_back(e.get<std::string>());
         }
      } else if (IsInteger(j.front())) {
         v.kind = Kind::kIntList;
         for (const auto &e : j) {
            if (!IsInteger(e)) {
               throw DocumentError("list mixes integers and other values");
            }
            v.nums.push_back(IntegerOf(e));
         }
      } else {
         throw DocumentError("lists hold strings or integers");
      }
   } else {
      throw DocumentError("unsupported value kind");
   }
   return v;
}

// ---- plain JSON of CreateObject -------------------------------------------------

void FillFromPlain(Node &node, const Json &j, int depth, bool skipKey) {
   if (depth > kMaxDepth) {
      throw DocumentError("nested too deeply");
   }
   if (!j.is_object()) {
      throw DocumentError("an object is a JSON object");
   }
   for (auto it = j.begin(); it != j.end(); ++it) {
      const std::string &name = it.key();
      const Json &member = it.value();
      if (name.empty()) {
         throw DocumentError("empty member name");
      }
      if (skipKey && name == "key") {
         continue;  // the instance id, already taken
      }
      if (member.is_null()) {
         continue;
      }
      if (member.is_object()) {
         if (node.FindChild(name, "")) {
            throw DocumentError("duplicate sub-object");
         }
         FillFromPlain(*node.AddChild(name, ""), member, depth + 1, false);
      } else if (member.is_array() && !member.empty() && member.front().is_object()) {
         for (const auto &inst : member) {
            if (!inst.is_object()) {
               throw DocumentError("array mixes objects and values");
            }
            auto keyIt = inst.find("key");
            if (keyIt == inst.end() || !keyIt->is_string() || keyIt->get<std::string>().empty()) {
               throw DocumentError("an instance needs a non-empty string \"key\"");
            }
            std::string childId = keyIt->get<std::string>();
            if (node.FindChild(name, childId)) {
               throw DocumentError("duplicate instance key");
            }
            FillFromPlain(*node.AddChild(name, childId), inst, depth + 1, true);
         }
      } else {
         node.PutValue(name) = ValueFromJson(member);
      }
   }
}

}  // namespace

NodePtr ParsePlainObject(const std::string &text) {
   Json j = Json::parse(text);
   auto node = std::make_shared<Node>();
   FillFromPlain(*node, j, 0, false);
   return node;
}

}  // namespace detail
}  // namespace configstore

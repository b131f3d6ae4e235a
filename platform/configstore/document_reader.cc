// document_reader.cc -- reads a stored document straight into the object
// tree: simdjson's on-demand parser walks the text once and every value,
// key and entry goes into its Node as it is met, with no JSON tree in
// between.
//
// What is accepted is exactly what the store has always read (RFC 8259
// JSON with an optional UTF-8 byte order mark, ending at a NUL byte;
// strings valid UTF-8 with no lone surrogate escapes and no unescaped
// control characters; integers within int64, no fractions or exponents) in
// the shape docs/configstore.md describes.  A member name given twice keeps
// its first position and its last value.  The store never writes one
// twice; in such a text, an occurrence that a later one replaces is now
// checked too, so a document whose replaced occurrence breaks the format
// is refused where it used to be read.
#include <simdjson.h>

#include <algorithm>
#include <cstddef>
#include <memory_resource>
#include <new>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "document.h"

namespace configstore {
namespace detail {

namespace {

namespace od = simdjson::ondemand;

static_assert(kDocumentSlack >= simdjson::SIMDJSON_PADDING,
              "a stored document read with slack is parsed in place");

// Each entry level of a document is three JSON levels (the "subobjects"
// object, the key's array, the entry); a value list adds two more.
constexpr size_t kMaxJsonDepth = 3 * (kMaxDepth + 1) + 3;

// Turns a parser error into the library's exceptions: no memory is
// kNoMemory, anything else a document the store cannot read.
void Check(simdjson::error_code err) {
   if (err == simdjson::SUCCESS) {
      return;
   }
   if (err == simdjson::MEMALLOC) {
      throw std::bad_alloc();
   }
   throw DocumentError(simdjson::error_message(err));
}

template <typename T, typename R>
T Get(R &&result) {
   T out{};
   Check(std::forward<R>(result).get(out));
   return out;
}

int64_t Integer(od::value v) {
   const od::number_type type = Get<od::number_type>(v.get_number_type());
   if (type == od::number_type::unsigned_integer) {
      throw DocumentError("integer out of range");
   }
   if (type != od::number_type::signed_integer) {
      throw DocumentError("a number is an integer");
   }
   return Get<int64_t>(v.get_int64());
}

std::string_view Text(od::value v) {
   return Get<std::string_view>(v.get_string());
}

// A value list: empty, all strings or all integers, by its first element.
void ReadList(Value &out, od::array list) {
   out.kind = Kind::kEmptyList;
   size_t n = 0;
   if (list.count_elements().get(n) != simdjson::SUCCESS) {
      n = 0;  // the loop below reports what is wrong with the list
   }
   for (auto element : list) {
      od::value e = Get<od::value>(element);
      const od::json_type type = Get<od::json_type>(e.type());
      if (out.kind == Kind::kEmptyList) {
         if (type == od::json_type::string) {
            out.kind = Kind::kStringList;
            out.MutableStrs().reserve(n);
         } else if (type == od::json_type::number) {
            out.kind = Kind::kIntList;
            out.MutableNums().reserve(n);
         } else {
            throw DocumentError("lists hold strings or integers");
         }
      }
      if (out.kind == Kind::kStringList) {
         if (type != od::json_type::string) {
            throw DocumentError("list mixes strings and other values");
         }
         out.MutableStrs().emplace_back(Text(e));
      } else {
         if (type != od::json_type::number) {
            throw DocumentError("list mixes integers and other values");
         }
         out.MutableNums().push_back(Integer(e));
      }
   }
}

void ReadValue(Value &out, od::value v) {
   out.Reset();
   switch (Get<od::json_type>(v.type())) {
      case od::json_type::string:
         out.kind = Kind::kString;
         out.str = Text(v);
         return;
      case od::json_type::boolean:
         out.kind = Kind::kBool;
         out.num = Get<bool>(v.get_bool()) ? 1 : 0;
         return;
      case od::json_type::number:
         out.kind = Kind::kInt;
         out.num = Integer(v);
         return;
      case od::json_type::array:
         ReadList(out, Get<od::array>(v.get_array()));
         return;
      default:
         throw DocumentError("unsupported value kind");
   }
}

// Room for `more` entries in a container that the reader is about to
// fill.  The arena never takes back the smaller buffers a growing
// container leaves behind, so sizing it once saves much of a tree's
// memory (and the pages a load must fault in).  Counting walks the
// object's text once more, which is cheap for the flat value objects and
// lists; sub-objects are not counted, since that would walk everything
// below them again at every level.  A count that fails is left to the
// reading loop to report.
template <typename Container, typename Count>
void Reserve(Container &c, Count more) {
   size_t n = 0;
   if (std::move(more).get(n) == simdjson::SUCCESS) {
      c.reserve(c.size() + n);
   }
}

void ReadValues(Node &node, od::object values) {
   Reserve(node.values, values.count_fields());
   for (auto field : values) {
      const std::string_view name = Get<std::string_view>(field.unescaped_key());
      if (name.empty()) {
         throw DocumentError("empty value name");
      }
      ReadValue(node.PutValue(name), Get<od::value>(field.value()));
   }
}

void ReadNode(Node &node, od::object object, int depth, bool isEntry, String *entryId,
              const char *const *dropKeys = nullptr);

// One sub-object entry under `sub`: read into a node of its own, which
// joins the key once its id (wherever it stands in the entry) is known.
void ReadEntry(SubKey &sub, od::value entry, int depth) {
   od::object object;
   if (entry.get_object().get(object) != simdjson::SUCCESS) {
      throw DocumentError("a sub-object entry is an object");
   }
   NodePtr child = NewNode(sub.entries.get_allocator().resource());
   ReadNode(*child, object, depth, true, &child->id);
   if (sub.Find(child->id) != nullptr) {
      throw DocumentError("duplicate sub-object instance");
   }
   sub.Add(std::move(child));
}

// The entries of a key the caller leaves out: each is read and checked as
// any other entry, in a scratch arena emptied after it, and only its id
// is kept, for the check against repeated instances.  A document is thus
// refused exactly when a full read refuses it, without building (and
// faulting in the memory of) a subtree nobody will look at.
void SkimEntries(od::array entries, int depth) {
   alignas(std::max_align_t) std::byte initial[16384];
   std::pmr::monotonic_buffer_resource scratch(initial, sizeof initial);
   std::unordered_set<std::string> ids;
   for (auto entry : entries) {
      od::object object;
      if (Get<od::value>(entry).get_object().get(object) != simdjson::SUCCESS) {
         throw DocumentError("a sub-object entry is an object");
      }
      NodePtr child = NewNode(&scratch);
      ReadNode(*child, object, depth, true, &child->id);
      if (!ids.emplace(child->id).second) {
         throw DocumentError("duplicate sub-object instance");
      }
      // Parked in the arena rather than taken apart: everything the entry
      // holds came from the arena, which release() empties at once.
      new (scratch.allocate(sizeof(NodePtr), alignof(NodePtr))) NodePtr(std::move(child));
      scratch.release();
   }
}

bool Listed(std::string_view key, const char *const *keys) {
   for (; keys != nullptr && *keys != nullptr; ++keys) {
      if (key == *keys) {
         return true;
      }
   }
   return false;
}

void ReadSubobjects(Node &node, od::object subobjects, int depth, const char *const *dropKeys) {
   for (auto field : subobjects) {
      const std::string_view key = Get<std::string_view>(field.unescaped_key());
      od::array entries;
      if (key.empty() ||
          Get<od::value>(field.value()).get_array().get(entries) != simdjson::SUCCESS) {
         throw DocumentError("a sub-object key holds an array of entries");
      }
      if (Listed(key, dropKeys)) {
         SkimEntries(entries, depth + 1);
         continue;
      }
      SubKey &sub = node.PutSub(key);
      sub.Clear();  // a repeated key: its last array counts
      for (auto entry : entries) {
         ReadEntry(sub, Get<od::value>(entry), depth + 1);
      }
      if (sub.entries.empty()) {
         // "k": [] leaves no key behind, as the entries it lists.
         node.RemoveSub(sub.key);
      }
   }
}

void ReadNode(Node &node, od::object object, int depth, bool isEntry, String *entryId,
              const char *const *dropKeys) {
   if (depth > kMaxDepth) {
      throw DocumentError("nested too deeply");
   }
   for (auto field : object) {
      const std::string_view name = Get<std::string_view>(field.unescaped_key());
      od::value member = Get<od::value>(field.value());
      if (name == "values") {
         od::object values;
         if (member.get_object().get(values) != simdjson::SUCCESS) {
            throw DocumentError("\"values\" is an object");
         }
         node.values.clear();  // a repeated member: its last object counts
         ReadValues(node, values);
      } else if (name == "subobjects") {
         od::object subobjects;
         if (member.get_object().get(subobjects) != simdjson::SUCCESS) {
            throw DocumentError("\"subobjects\" is an object");
         }
         node.subs.clear();
         ReadSubobjects(node, subobjects, depth, dropKeys);
      } else if (name == "id" && isEntry) {
         od::json_type type = Get<od::json_type>(member.type());
         if (type != od::json_type::string) {
            throw DocumentError("an instance id is a string");
         }
         *entryId = Text(member);
      } else {
         throw DocumentError("unknown document member");
      }
   }
}

// The parser keeps its buffers between documents; one per thread, since a
// store may be used from several.
// The depth set here stays when the buffers grow for a larger document.
od::parser &Parser() {
   thread_local od::parser parser;
   if (parser.max_depth() != kMaxJsonDepth) {
      Check(parser.allocate(64 * 1024, kMaxJsonDepth));
   }
   return parser;
}

}  // namespace

std::unique_ptr<Tree> ParseDocument(const std::string &text, const char *const *dropKeys) {
   // The text ends at a NUL byte, as it always has (one inside a string
   // then leaves that string unterminated).
   std::string_view json(text.data(), std::min(text.find('\0'), text.size()));
   // A byte order mark may open the text.
   constexpr std::string_view kBom("\xEF\xBB\xBF");
   if (json.substr(0, kBom.size()) == kBom) {
      json.remove_prefix(kBom.size());
   }
   // The parser reads a little past the end of the text: a text read with
   // room for that (see kDocumentSlack) is parsed where it is, any other
   // is copied first.
   const size_t room = text.capacity() - static_cast<size_t>(json.data() - text.data());
   std::string padded;
   const char *start = json.data();
   size_t capacity = room;
   if (room < json.size() + simdjson::SIMDJSON_PADDING) {
      padded.reserve(json.size() + simdjson::SIMDJSON_PADDING);
      padded.assign(json);
      start = padded.data();
      capacity = padded.capacity();
   }
   od::document doc = Get<od::document>(Parser().iterate(start, json.size(), capacity));
   od::object root;
   if (doc.get_object().get(root) != simdjson::SUCCESS) {
      throw DocumentError("a document is a JSON object");
   }
   auto tree = std::make_unique<Tree>();
   ReadNode(*tree->Root(), root, 0, false, nullptr, dropKeys);
   // Nothing but white space may follow the object.
   const char *trailing = nullptr;
   if (doc.current_location().get(trailing) == simdjson::SUCCESS) {
      throw DocumentError("text after the document");
   }
   return tree;
}

}  // namespace detail
}  // namespace configstore

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
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
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

// Every function below comes in two forms.  With kKeep, what it reads goes
// into the tree.  Without, it only checks what it reads: the entries of a
// key the caller leaves out are walked by the same code and so refused
// exactly when a full read would refuse them, without building (and
// faulting in the memory of) a subtree nobody will look at.  A checked
// entry's id is a view into the parser's string buffer, which lasts as long
// as the document's parse.
template <bool kKeep>
using IdText = std::conditional_t<kKeep, String, std::string_view>;

// A value list: empty, all strings or all integers, by its first element.
template <bool kKeep>
void ReadList(Value *out, od::array list) {
   Kind kind = Kind::kEmptyList;
   size_t n = 0;
   if constexpr (kKeep) {
      out->kind = kind;
      if (list.count_elements().get(n) != simdjson::SUCCESS) {
         n = 0;  // the loop below reports what is wrong with the list
      }
   }
   for (auto element : list) {
      od::value e = Get<od::value>(element);
      const od::json_type type = Get<od::json_type>(e.type());
      if (kind == Kind::kEmptyList) {
         if (type == od::json_type::string) {
            kind = Kind::kStringList;
         } else if (type == od::json_type::number) {
            kind = Kind::kIntList;
         } else {
            throw DocumentError("lists hold strings or integers");
         }
         if constexpr (kKeep) {
            out->kind = kind;
            if (kind == Kind::kStringList) {
               out->MutableStrs().reserve(n);
            } else {
               out->MutableNums().reserve(n);
            }
         }
      }
      if (kind == Kind::kStringList) {
         if (type != od::json_type::string) {
            throw DocumentError("list mixes strings and other values");
         }
         const std::string_view text = Text(e);
         if constexpr (kKeep) {
            out->MutableStrs().emplace_back(text);
         }
      } else {
         if (type != od::json_type::number) {
            throw DocumentError("list mixes integers and other values");
         }
         const int64_t number = Integer(e);
         if constexpr (kKeep) {
            out->MutableNums().push_back(number);
         }
      }
   }
}

template <bool kKeep>
void ReadValue(Value *out, od::value v) {
   if constexpr (kKeep) {
      out->Reset();
   }
   switch (Get<od::json_type>(v.type())) {
      case od::json_type::string: {
         const std::string_view text = Text(v);
         if constexpr (kKeep) {
            out->kind = Kind::kString;
            out->str = text;
         }
         return;
      }
      case od::json_type::boolean: {
         const bool b = Get<bool>(v.get_bool());
         if constexpr (kKeep) {
            out->kind = Kind::kBool;
            out->num = b ? 1 : 0;
         }
         return;
      }
      case od::json_type::number: {
         const int64_t number = Integer(v);
         if constexpr (kKeep) {
            out->kind = Kind::kInt;
            out->num = number;
         }
         return;
      }
      case od::json_type::array:
         ReadList<kKeep>(out, Get<od::array>(v.get_array()));
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

template <bool kKeep>
void ReadValues(Node *node, od::object values) {
   if constexpr (kKeep) {
      Reserve(node->values, values.count_fields());
   }
   for (auto field : values) {
      const std::string_view name = Get<std::string_view>(field.unescaped_key());
      if (name.empty()) {
         throw DocumentError("empty value name");
      }
      Value *slot = nullptr;
      if constexpr (kKeep) {
         slot = &node->PutValue(name);
      }
      ReadValue<kKeep>(slot, Get<od::value>(field.value()));
   }
}

template <bool kKeep>
void ReadNode(Node *node, od::object object, int depth, bool isEntry, IdText<kKeep> *entryId,
              const char *const *dropKeys = nullptr);

// One sub-object entry under `sub`: read into a node of its own, which
// joins the key once its id (wherever it stands in the entry) is known.
void ReadEntry(SubKey &sub, od::value entry, int depth) {
   od::object object;
   if (entry.get_object().get(object) != simdjson::SUCCESS) {
      throw DocumentError("a sub-object entry is an object");
   }
   NodePtr child = NewNode(sub.entries.get_allocator().resource());
   ReadNode<true>(child.get(), object, depth, true, &child->id);
   if (sub.Find(child->id) != nullptr) {
      throw DocumentError("duplicate sub-object instance");
   }
   sub.Add(std::move(child));
}

// The ids met in one array of checked entries.  Most arrays hold one or
// a few entries (a port's settings), so the first few ids are compared in
// place and a hash set is made only for a longer array.
class SeenIds {
  public:
   // False when id was met before.
   bool Add(std::string_view id) {
      if (many_.empty()) {
         for (size_t i = 0; i < count_; i++) {
            if (few_[i] == id) {
               return false;
            }
         }
         if (count_ < kFew) {
            few_[count_++] = id;
            return true;
         }
         many_.insert(few_, few_ + count_);
      }
      return many_.insert(id).second;
   }

  private:
   static constexpr size_t kFew = 8;
   std::string_view few_[kFew];
   size_t count_ = 0;
   std::unordered_set<std::string_view> many_;
};

// The entries of a key whose entries are only checked: each entry as any
// other, and their ids against repeated instances.
void CheckEntries(od::array entries, int depth) {
   SeenIds ids;
   for (auto entry : entries) {
      od::object object;
      if (Get<od::value>(entry).get_object().get(object) != simdjson::SUCCESS) {
         throw DocumentError("a sub-object entry is an object");
      }
      std::string_view id;
      ReadNode<false>(nullptr, object, depth, true, &id);
      if (!ids.Add(id)) {
         throw DocumentError("duplicate sub-object instance");
      }
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

template <bool kKeep>
void ReadSubobjects(Node *node, od::object subobjects, int depth, const char *const *dropKeys) {
   for (auto field : subobjects) {
      const std::string_view key = Get<std::string_view>(field.unescaped_key());
      od::array entries;
      if (key.empty() ||
          Get<od::value>(field.value()).get_array().get(entries) != simdjson::SUCCESS) {
         throw DocumentError("a sub-object key holds an array of entries");
      }
      if (!kKeep || Listed(key, dropKeys)) {
         CheckEntries(entries, depth + 1);
         continue;
      }
      if constexpr (kKeep) {
         SubKey &sub = node->PutSub(key);
         sub.Clear();  // a repeated key: its last array counts
         for (auto entry : entries) {
            ReadEntry(sub, Get<od::value>(entry), depth + 1);
         }
         if (sub.entries.empty()) {
            // "k": [] leaves no key behind, as the entries it lists.
            node->RemoveSub(sub.key);
         }
      }
   }
}

template <bool kKeep>
void ReadNode(Node *node, od::object object, int depth, bool isEntry, IdText<kKeep> *entryId,
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
         if constexpr (kKeep) {
            node->values.clear();  // a repeated member: its last object counts
         }
         ReadValues<kKeep>(node, values);
      } else if (name == "subobjects") {
         od::object subobjects;
         if (member.get_object().get(subobjects) != simdjson::SUCCESS) {
            throw DocumentError("\"subobjects\" is an object");
         }
         if constexpr (kKeep) {
            node->subs.clear();
         }
         ReadSubobjects<kKeep>(node, subobjects, depth, dropKeys);
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
   ReadNode<true>(tree->Root().get(), root, 0, false, nullptr, dropKeys);
   // Nothing but white space may follow the object.
   const char *trailing = nullptr;
   if (doc.current_location().get(trailing) == simdjson::SUCCESS) {
      throw DocumentError("text after the document");
   }
   return tree;
}

}  // namespace detail
}  // namespace configstore

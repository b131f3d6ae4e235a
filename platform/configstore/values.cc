// values.cc -- the typed values of objects and sub-objects.
#include "client.h"

#include <cstdlib>
#include <cstring>
#include <limits>

namespace configstore {

using namespace client;

namespace {

// A value found by Lookup.  It points into the tree, except for an
// instance's "key": that is the instance's id, in `id`, and `value` then
// points to a string value standing for it (kInstanceId), which only says
// what kind of value it is.
struct Found {
   const Value *value = nullptr;
   std::string_view id;
   bool isId = false;

   // The text of a string value.
   std::string_view Text() const { return isId ? id : std::string_view(value->str); }
};

const Value &InstanceIdKind() {
   static const Value kInstanceId = [] {
      Value v;
      v.kind = Kind::kString;
      return v;
   }();
   return kInstanceId;
}

// Finds `key` in `obj`; an instance answers "key" with its id unless a
// value "key" was set.
int32_t Lookup(Object *obj, const char *key, Found *found) {
   if (obj == nullptr || Empty(key)) {
      return kBadParam;
   }
   Node *node = Live(obj);
   if (node == nullptr) {
      return kNotFound;
   }
   if (const Value *v = node->FindValue(key)) {
      found->value = v;
      return kSuccess;
   }
   if (!IsRoot(obj) && !node->id.empty() && std::strcmp(key, "key") == 0) {
      found->value = &InstanceIdKind();
      found->id = node->id;
      found->isId = true;
      return kSuccess;
   }
   return kNotFound;
}

// Finds key in obj as a value whose kind `accepts` takes; a value of
// another kind is a type mismatch.
template <typename Accepts>
int32_t LookupKind(Object *obj, const char *key, Found *found, Accepts accepts) {
   const int32_t rc = Lookup(obj, key, found);
   if (rc == kSuccess && !accepts(*found->value)) {
      return kTypeMismatch;
   }
   return rc;
}

int32_t GetInteger(Object *obj, const char *key, int64_t lo, int64_t hi, int64_t *out) {
   if (out == nullptr) {
      return kBadParam;
   }
   Found found;
   const int32_t rc = LookupKind(obj, key, &found, [&](const Value &x) {
      return x.kind == Kind::kInt && x.num >= lo && x.num <= hi;
   });
   if (rc != kSuccess) {
      return rc;
   }
   *out = found.value->num;
   return kSuccess;
}

// Reads an integer value as T: one whose value lies outside T's range is a
// type mismatch, like a value of another kind.
template <typename T>
int32_t GetIntegerAs(Object *obj, const char *key, T *value) {
   int64_t v = 0;
   const int32_t rc = GetInteger(obj, key, std::numeric_limits<T>::min(),
                                 std::numeric_limits<T>::max(), value != nullptr ? &v : nullptr);
   if (rc == kSuccess) {
      *value = static_cast<T>(v);
   }
   return rc;
}

template <typename Fill>
int32_t PutValue(Object *obj, const char *key, Fill &&fill) {
   if (obj == nullptr || Empty(key)) {
      return kBadParam;
   }
   Node *node = Live(obj);
   if (!node) {
      return kNotFound;
   }
   // Made in the tree's arena, so that moving it in copies nothing.
   Value v(node->values.get_allocator());
   fill(v);
   node->PutValue(key) = std::move(v);
   return kSuccess;
}

int32_t SetInteger(Object *obj, const char *key, int64_t value) {
   return PutValue(obj, key, [&](Value &v) {
      v.kind = Kind::kInt;
      v.num = value;
   });
}

}  // namespace

// ---- values -----------------------------------------------------------------------------

namespace {

// A value of one kind, handed to `take` to fill the caller's out value.
template <typename Out, typename Take>
int32_t GetScalarOfKind(Object *obj, const char *key, Out *value, Kind kind, Take take) {
   return Guard([&]() -> int32_t {
      if (value == nullptr) {
         return kBadParam;
      }
      Found found;
      const int32_t rc =
         LookupKind(obj, key, &found, [kind](const Value &x) { return x.kind == kind; });
      if (rc != kSuccess) {
         return rc;
      }
      *value = take(found);
      return kSuccess;
   });
}

}  // namespace

int32_t GetValueStr(Object *obj, const char *key, char **value) {
   return GetScalarOfKind(obj, key, value, Kind::kString,
                          [](const Found &x) { return DupString(x.Text()); });
}

int32_t GetValueStrRef(Object *obj, const char *key, const char **value, size_t *len) {
   if (len == nullptr) {
      return kBadParam;
   }
   return GetScalarOfKind(obj, key, value, Kind::kString, [len](const Found &x) {
      const std::string_view text = x.Text();
      *len = text.size();
      return text.data();  // both strings keep a NUL after their text
   });
}

int32_t GetValueInt(Object *obj, const char *key, int32_t *value) {
   return Guard([&] { return GetIntegerAs(obj, key, value); });
}

int32_t GetValueUint32(Object *obj, const char *key, uint32_t *value) {
   return Guard([&] { return GetIntegerAs(obj, key, value); });
}

int32_t GetValueUint16(Object *obj, const char *key, uint16_t *value) {
   return Guard([&] { return GetIntegerAs(obj, key, value); });
}

int32_t GetValueLong(Object *obj, const char *key, int64_t *value) {
   return Guard([&] { return GetIntegerAs(obj, key, value); });
}

int32_t GetValueBool(Object *obj, const char *key, bool *value) {
   return GetScalarOfKind(obj, key, value, Kind::kBool,
                          [](const Found &x) { return x.value->num != 0; });
}

int32_t GetValueStringArray(Object *obj, const char *key, char ***values, uint32_t *count) {
   return Guard([&]() -> int32_t {
      if (values == nullptr || count == nullptr) {
         return kBadParam;
      }
      Found found;
      const int32_t rc = LookupKind(obj, key, &found, [](const Value &x) {
         return x.kind == Kind::kStringList || x.kind == Kind::kEmptyList;
      });
      if (rc != kSuccess) {
         return rc;
      }
      const Value *v = found.value;
      const size_t n = v->strs().size();
      // One block: the pointers, with one spare NULL slot that keeps the
      // array NULL-terminated as well, then the texts they point to.
      const size_t pointerBytes = (n + 1) * sizeof(char *);
      size_t bytes = pointerBytes;
      for (const auto &text : v->strs()) {
         bytes += text.size() + 1;
      }
      auto **array = static_cast<char **>(std::malloc(bytes));
      if (array == nullptr) {
         return kNoMemory;
      }
      char *at = reinterpret_cast<char *>(array) + pointerBytes;
      for (size_t i = 0; i < n; ++i) {
         const auto &text = v->strs()[i];
         std::memcpy(at, text.c_str(), text.size() + 1);
         array[i] = at;
         at += text.size() + 1;
      }
      array[n] = nullptr;
      *values = array;
      *count = static_cast<uint32_t>(n);
      return kSuccess;
   });
}

int32_t SetValueStr(Object *obj, const char *key, const char *value) {
   return Guard([&]() -> int32_t {
      if (value == nullptr) {
         return kBadParam;
      }
      return PutValue(obj, key, [&](Value &v) {
         v.kind = Kind::kString;
         v.str = value;
      });
   });
}

int32_t SetValueInt(Object *obj, const char *key, int32_t value) {
   return Guard([&]() -> int32_t { return SetInteger(obj, key, value); });
}

int32_t SetValueUint32(Object *obj, const char *key, uint32_t value) {
   return Guard([&]() -> int32_t { return SetInteger(obj, key, value); });
}

int32_t SetValueUint16(Object *obj, const char *key, uint16_t value) {
   return Guard([&]() -> int32_t { return SetInteger(obj, key, value); });
}

int32_t SetValueLong(Object *obj, const char *key, int64_t value) {
   return Guard([&]() -> int32_t { return SetInteger(obj, key, value); });
}

int32_t SetValueBool(Object *obj, const char *key, bool value) {
   return Guard([&]() -> int32_t {
      return PutValue(obj, key, [&](Value &v) {
         v.kind = Kind::kBool;
         v.num = value ? 1 : 0;
      });
   });
}

// A key set to an empty list holds nothing: the sub-objects under the same
// key (instances and singleton) go with everything below them, and every
// handle into them answers kNotFound from now on.
int32_t SetValueEmptyList(Object *obj, const char *key) {
   return Guard([&]() -> int32_t {
      if (obj == nullptr || Empty(key)) {
         return kBadParam;
      }
      Node *node = Live(obj);
      if (!node) {
         return kNotFound;
      }
      Value &v = node->PutValue(key);  // the only step that can fail
      v = Value{};
      v.kind = Kind::kEmptyList;
      node->RemoveSub(key);
      return kSuccess;
   });
}

namespace {

// Appends to the list under `key`, creating it when absent.  `want` is
// the kind of list the element belongs in.
template <typename Push>
int32_t Append(Object *obj, const char *key, Kind want, Push &&push) {
   if (obj == nullptr || Empty(key)) {
      return kBadParam;
   }
   Node *node = Live(obj);
   if (!node) {
      return kNotFound;
   }
   Value *v = node->FindValue(key);
   if (v == nullptr) {
      v = &node->PutValue(key);
      v->kind = Kind::kEmptyList;
   }
   if (v->kind == Kind::kEmptyList) {
      v->kind = want;
   } else if (v->kind != want) {
      return kTypeMismatch;
   }
   push(*v);
   return kSuccess;
}

}  // namespace

int32_t AppendValueString(Object *obj, const char *key, const char *value) {
   return Guard([&]() -> int32_t {
      if (value == nullptr) {
         return kBadParam;
      }
      return Append(obj, key, Kind::kStringList, [&](Value &v) { v.MutableStrs().emplace_back(value); });
   });
}

int32_t AppendValueInt(Object *obj, const char *key, int32_t value) {
   return Guard([&]() -> int32_t {
      return Append(obj, key, Kind::kIntList, [&](Value &v) { v.MutableNums().push_back(value); });
   });
}

int32_t RemoveValue(Object *obj, const char *key) {
   return Guard([&]() -> int32_t {
      if (obj == nullptr || Empty(key)) {
         return kBadParam;
      }
      Node *node = Live(obj);
      if (!node) {
         return kNotFound;
      }
      return node->RemoveValue(key) ? kSuccess : kNotFound;
   });
}

void DestroyStringArrayValue(char **values, uint32_t /*count*/) {
   // The texts live in the array's own block (GetValueStringArray).
   std::free(values);
}

}  // namespace configstore

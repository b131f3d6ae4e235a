// The catch-all converter: every property that has no row of its own is
// kept as base64 text, one instance per property, in the singleton
// sub-object "data" of the switch (global and host properties) or the port.
// Global and host properties share the switch's "data" object, so each
// class has a collection of its own inside it.  Instances keep their
// creation order, which is the order the save met the properties, so the
// load gives them back in their original relative order.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "configstore/base64.h"
#include "configstore/configstore_internal.h"
#include "configstore/converters.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

namespace {

// The collection of each property class inside "data".
const char *CollectionOf(uint32_t propClass) {
   switch (propClass) {
      case PROP_CLASS_GLOBAL:
         return "dvs_opaque_data";
      case PROP_CLASS_HOST:
         return "host_opaque_data";
      case PROP_CLASS_PORT:
         return "other_data";
      default:
         return nullptr;
   }
}

// One property read back from the store, decoded but not yet added: its
// name points into the instance it came from; its bytes are len bytes at
// `at` in the call's DecodedBytes.
struct Decoded {
   const char *name;
   size_t at;
   size_t len;
};

// The decoded bytes of every instance of one call, one after the other in
// one block, rather than a block of their own each.
class DecodedBytes {
  public:
   DecodedBytes() = default;
   DecodedBytes(const DecodedBytes &) = delete;
   DecodedBytes &operator=(const DecodedBytes &) = delete;
   ~DecodedBytes() { free(bytes_); }

   // Room for n more bytes at Next(); false when it cannot be had.
   bool Reserve(size_t n) {
      if (bytes_ != nullptr && n <= cap_ - used_) {
         return true;
      }
      size_t cap = cap_ > 0 ? cap_ : 256;
      while (cap - used_ < n) {
         if (cap > SIZE_MAX / 2) {
            return false;
         }
         cap *= 2;
      }
      auto *grown = static_cast<uint8_t *>(realloc(bytes_, cap));
      if (grown == nullptr) {
         return false;
      }
      bytes_ = grown;
      cap_ = cap;
      return true;
   }
   uint8_t *Next() { return bytes_ + used_; }
   size_t Used() const { return used_; }
   void Keep(size_t n) { used_ += n; }
   const uint8_t *At(size_t at) const { return bytes_ + at; }

  private:
   uint8_t *bytes_ = nullptr;
   size_t used_ = 0;
   size_t cap_ = 0;
};

// Reads and decodes one instance into *item and the end of bytes.  An
// instance without a "value" leaves item->name null: there is nothing to
// restore for it.  Texts are read in place; as C strings, like the copies
// the store hands out, so that they end at their first NUL.
int32_t DecodeInstance(cs::Object *inst, Decoded *item, DecodedBytes *bytes) {
   const char *name = nullptr;
   size_t nameLen = 0;
   int32_t rc = cs::GetValueStrRef(inst, "key", &name, &nameLen);
   if (rc != cs::kSuccess) {
      return rc;
   }
   if (nameLen >= DVSDATA_NAME_MAX && strnlen(name, DVSDATA_NAME_MAX) >= DVSDATA_NAME_MAX) {
      if (dvsconfigstore_debug >= 0) {
         printf("Opaque data name too long: %s\n", name);
      }
      return kConverterFailure;
   }
   const char *text = nullptr;
   size_t textLen = 0;
   rc = cs::GetValueStrRef(inst, "value", &text, &textLen);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   Base64Status st = Base64Status::kNoMemory;
   size_t len = 0;
   // One byte at least, so that an empty value still points somewhere.
   if (bytes->Reserve(std::max<size_t>(Base64DecodedRoom(textLen), 1))) {
      st = Base64DecodeTo(text, textLen, bytes->Next(), &len);
      if (st == Base64Status::kInvalid && std::memchr(text, '\0', textLen) != nullptr) {
         // Only what comes before a NUL counts.
         st = Base64DecodeTo(text, strlen(text), bytes->Next(), &len);
      }
   }
   if (st == Base64Status::kOk && len > UINT32_MAX) {
      st = Base64Status::kInvalid;
   }
   if (st != Base64Status::kOk) {
      if (dvsconfigstore_debug >= 0) {
         if (st == Base64Status::kNoMemory) {
            printf("Failed to alloc memory for opaque data of prop: %s\n", name);
         } else {
            printf("Bad opaque data for prop: %s\n", name);
         }
      }
      return kConverterFailure;
   }
   item->name = name;
   item->at = bytes->Used();
   item->len = len;
   bytes->Keep(len);
   return cs::kSuccess;
}

}  // namespace

int32_t SaveOpaqueData(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                       const ConvertContext &ctx) {
   const char *collection = CollectionOf(ctx.propClass);
   if (collection == nullptr || ctx.propName == nullptr || ctx.propName[0] == '\0' ||
       (value == nullptr && valueLen != 0)) {
      if (dvsconfigstore_debug >= 0) {
         printf("Cannot save opaque data for prop: %s of class %u\n",
                ctx.propName != nullptr ? ctx.propName : "(null)", ctx.propClass);
      }
      return kConverterFailure;
   }
   char *text = Base64Encode(value, valueLen);
   if (text == nullptr) {
      if (dvsconfigstore_debug >= 0) {
         printf("Failed to alloc memory for opaque data of prop: %s\n", ctx.propName);
      }
      return kConverterFailure;
   }
   cs::Object *data = nullptr;
   cs::Object *inst = nullptr;
   int32_t rc = GetOrCreateSubObject(true, obj, key, "", &data);
   if (rc == cs::kSuccess) {
      rc = cs::CreateSubObject(data, collection, ctx.propName, &inst);
   }
   if (rc == cs::kSuccess) {
      rc = cs::SetValueStr(inst, "value", text);
   }
   if (rc != cs::kSuccess && dvsconfigstore_debug >= 0) {
      printf("Failed to save opaque data for prop: %s, rc: %d\n", ctx.propName, rc);
   }
   free(text);
   return rc;
}

// Every instance is read and decoded before the first property is added,
// so a bad instance adds none of them.
int32_t LoadOpaqueData(cs::Object *obj, const char *key, DVSDataHandle props, const char *,
                       uint64_t propFlag, const ConvertContext &ctx) {
   const char *collection = CollectionOf(ctx.propClass);
   if (collection == nullptr) {
      if (dvsconfigstore_debug >= 0) {
         printf("Cannot load opaque data of class %u\n", ctx.propClass);
      }
      return kConverterFailure;
   }
   cs::Object *data = nullptr;
   int32_t rc = cs::GetSubObject(obj, key, "", &data);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   cs::FilterSpec *filter = nullptr;
   rc = cs::CreateFilterSpecObject(collection, nullptr, nullptr, nullptr, &filter);
   if (rc != cs::kSuccess) {
      return rc;
   }
   cs::Object **insts = nullptr;
   uint32_t count = 0;
   rc = cs::GetSubObjectInstances(data, filter, &insts, &count);
   cs::DestroyFilterSpecObject(filter);
   if (rc != cs::kSuccess) {
      free(insts);
      return rc;
   }
   auto *items = static_cast<Decoded *>(calloc(count != 0 ? count : 1, sizeof(Decoded)));
   if (items == nullptr) {
      if (dvsconfigstore_debug >= 0) {
         puts("Failed to alloc memory for opaque data");
      }
      free(insts);
      return kConverterFailure;
   }
   DecodedBytes bytes;
   for (uint32_t i = 0; i < count && rc == cs::kSuccess; i++) {
      rc = DecodeInstance(insts[i], &items[i], &bytes);
   }
   free(insts);
   for (uint32_t i = 0; i < count && rc == cs::kSuccess; i++) {
      if (items[i].name == nullptr) {
         continue;
      }
      if (DVSData_Update(props, items[i].name, bytes.At(items[i].at),
                         static_cast<uint32_t>(items[i].len),
                         static_cast<uint32_t>(propFlag)) != STATUS_OK) {
         if (dvsconfigstore_debug >= 0) {
            printf("Failed to add opaque data for prop: %s\n", items[i].name);
         }
         rc = kConverterFailure;
      }
   }
   free(items);
   return rc;
}

}  // namespace dvs::configstore

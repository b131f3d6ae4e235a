// The converters that turn one property value into one store value, or one
// list of texts, and back.  Texts that stand for booleans are compared
// exactly, NUL included: "True" or "true " store false.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "configstore/converters.h"
#include "configstore/property_layouts.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

namespace {

using namespace ::dvs::layouts;

constexpr uint32_t kMaxRecord = kResPoolKeyRecord;

constexpr uint32_t kPtAllowed = 2;

struct VersionText {
   const char *text;
   uint32_t number;     // "zlt_enabled" false or absent
   uint32_t zltNumber;  // "zlt_enabled" true
};

// In the order the load compares them.
constexpr VersionText kVersions[] = {
   {"6.0.0", 4, 4},   {"6.5.0", 5, 5},    {"6.6.0", 6, 6},   {"7.0.0", 7, 107},
   {"7.0.2", 8, 108}, {"8.0.0", 10, 110}, {"7.0.3", 9, 109}, {"ZLT 1.0", 100, 100},
};

// True when value is exactly text with its NUL.
bool ValueIs(const void *value, uint32_t valueLen, const char *text) {
   size_t len = strlen(text) + 1;
   return value != nullptr && valueLen >= len && memcmp(value, text, len) == 0;
}

int32_t Update(DVSDataHandle props, const char *propName, const void *data, uint32_t len,
               uint64_t propFlag) {
   ReturnStatus st = DVSData_Update(props, propName, data, len, static_cast<uint32_t>(propFlag));
   return st == STATUS_OK ? cs::kSuccess : kConverterFailure;
}

int32_t LoadBoolAsText(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                       uint64_t propFlag, const char *whenTrue, const char *whenFalse) {
   bool b = false;
   int32_t rc = cs::GetValueBool(obj, key, &b);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   const char *text = b ? whenTrue : whenFalse;
   if (text == nullptr) {
      return cs::kSuccess;
   }
   return Update(props, propName, text, static_cast<uint32_t>(strlen(text) + 1), propFlag);
}

// The first sizeof(T) bytes of a property value; a shorter (damaged) value
// is read as far as it goes, the rest taken as zero.
template <typename T>
T Fixed(const void *value, uint32_t valueLen) {
   T v{};
   if (value != nullptr) {
      memcpy(&v, value, valueLen < sizeof v ? valueLen : sizeof v);
   }
   return v;
}

int32_t SaveNameArray(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                      uint32_t recordSize, bool emptyWhenZero) {
   const auto *bytes = static_cast<const uint8_t *>(value);
   const uint32_t count = Fixed<uint32_t>(value, valueLen);
   if (valueLen < kCountSize || uint64_t{count} * recordSize + kCountSize > valueLen) {
      if (dvsconfigstore_debug >= 0) {
         printf("Bad name array for key: %s, count: %u, length: %u\n", key, count, valueLen);
      }
      return kConverterFailure;
   }
   if (count == 0 && !emptyWhenZero) {
      return cs::kSuccess;
   }
   int32_t rc = cs::SetValueEmptyList(obj, key);
   if (emptyWhenZero && rc != cs::kSuccess) {
      return rc;
   }
   for (uint32_t i = 0; i < count; i++) {
      // A record is a name and its NUL; a name that fills its whole record
      // ends there.
      char name[kMaxRecord + 1];
      memcpy(name, bytes + kCountSize + size_t{i} * recordSize, recordSize);
      name[recordSize] = '\0';
      rc = cs::AppendValueString(obj, key, name);
      if (rc != cs::kSuccess) {
         return rc;
      }
   }
   return cs::kSuccess;
}

// How a counted name array is rebuilt on load: its record size, how much of
// each name a record keeps (with its NUL), and what an allocation failure
// prints and returns.
struct NameArrayLayout {
   uint32_t recordSize;
   uint32_t nameMax;
   const char *allocMessage;
   int32_t allocFailureResult;
};

// A pool key list that cannot be rebuilt is not worth failing the whole
// load: it is left out.
constexpr NameArrayLayout kResPoolKeys = {kResPoolKeyRecord, kResPoolKeyNameMax,
                                          "Failed to alloc memory for DVSPropResPoolsList",
                                          cs::kSuccess};
constexpr NameArrayLayout kUplinkKeys = {kUplinkKeyRecord, kUplinkKeyRecord,
                                         "Failed to alloc memory for DVSUplinkPortIds",
                                         kConverterFailure};
constexpr NameArrayLayout kUplinkNames = {kUplinkNameSlot, kUplinkNameSlot,
                                          "Failed to alloc memory for DVSUplinkPorts",
                                          kConverterFailure};

// Rebuilds the list under key as a counted array: the count, then one
// record per name in the store's order.  An absent or empty list adds no
// property.
int32_t LoadNameArray(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                      uint64_t propFlag, const NameArrayLayout &layout) {
   char **names = nullptr;
   uint32_t count = 0;
   int32_t rc = cs::GetValueStringArray(obj, key, &names, &count);
   if (rc != cs::kSuccess || count < 1) {
      cs::DestroyStringArrayValue(names, count);
      return AbsentIsSuccess(rc);
   }
   const uint64_t len = uint64_t{count} * layout.recordSize + kCountSize;
   // Zero-filled: the bytes after each name carry no meaning, and no heap
   // contents may reach a blob.
   auto *buf = len <= UINT32_MAX ? static_cast<uint8_t *>(calloc(1, len)) : nullptr;
   if (buf == nullptr) {
      if (dvsconfigstore_debug >= 0) {
         puts(layout.allocMessage);
      }
      // The resource-pool key list is skipped without failing the load;
      // the uplink lists fail it through their result.
      rc = layout.allocFailureResult;
   } else {
      memcpy(buf, &count, sizeof count);
      for (uint32_t i = 0; i < count; i++) {
         char *rec = reinterpret_cast<char *>(buf + kCountSize + size_t{i} * layout.recordSize);
         snprintf(rec, layout.nameMax, "%s", names[i]);
      }
      rc = Update(props, propName, buf, static_cast<uint32_t>(len), propFlag);
      free(buf);
   }
   cs::DestroyStringArrayValue(names, count);
   return rc;
}

// A fixed-size integer property stored as a store integer of the same type.
template <typename T, int32_t (*SetFn)(cs::Object *, const char *, T)>
int32_t SaveNumber(cs::Object *obj, const char *key, const void *value, uint32_t valueLen) {
   return SetFn(obj, key, Fixed<T>(value, valueLen));
}

template <typename T, int32_t (*GetFn)(cs::Object *, const char *, T *)>
int32_t LoadNumber(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                   uint64_t propFlag) {
   T v = 0;
   const int32_t rc = GetFn(obj, key, &v);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   return Update(props, propName, &v, sizeof v, propFlag);
}

}  // namespace

int32_t SetValueText(cs::Object *obj, const char *key, const void *value, uint32_t valueLen) {
   if (value == nullptr) {
      return kConverterFailure;
   }
   if (memchr(value, '\0', valueLen) != nullptr) {
      return cs::SetValueStr(obj, key, static_cast<const char *>(value));
   }
   char *text = static_cast<char *>(malloc(size_t{valueLen} + 1));
   if (text == nullptr) {
      return kConverterFailure;
   }
   memcpy(text, value, valueLen);
   text[valueLen] = '\0';
   const int32_t rc = cs::SetValueStr(obj, key, text);
   free(text);
   return rc;
}

int32_t SaveUint32(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                   const ConvertContext &) {
   return SaveNumber<uint32_t, cs::SetValueUint32>(obj, key, value, valueLen);
}

int32_t LoadUint32(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                   uint64_t propFlag, const ConvertContext &) {
   return LoadNumber<uint32_t, cs::GetValueUint32>(obj, key, props, propName, propFlag);
}

int32_t SaveString(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                   const ConvertContext &) {
   return SetValueText(obj, key, value, valueLen);
}

int32_t LoadString(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                   uint64_t propFlag, const ConvertContext &) {
   char *s = nullptr;
   int32_t rc = cs::GetValueStr(obj, key, &s);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   rc = Update(props, propName, s, static_cast<uint32_t>(strlen(s) + 1), propFlag);
   free(s);
   return rc;
}

int32_t SaveInt32(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                  const ConvertContext &) {
   return SaveNumber<int32_t, cs::SetValueInt>(obj, key, value, valueLen);
}

int32_t LoadInt32(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                  uint64_t propFlag, const ConvertContext &) {
   return LoadNumber<int32_t, cs::GetValueInt>(obj, key, props, propName, propFlag);
}

int32_t SaveBoolByte(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                     const ConvertContext &) {
   return cs::SetValueBool(obj, key, Fixed<uint8_t>(value, valueLen) != 0);
}

int32_t LoadBoolByte(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                     uint64_t propFlag, const ConvertContext &) {
   bool b = false;
   int32_t rc = cs::GetValueBool(obj, key, &b);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   uint8_t v = b ? 1 : 0;
   return Update(props, propName, &v, sizeof v, propFlag);
}

int32_t SaveBoolText(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                     const ConvertContext &) {
   return cs::SetValueBool(obj, key, ValueIs(value, valueLen, "true"));
}

int32_t LoadBoolText(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                     uint64_t propFlag, const ConvertContext &) {
   return LoadBoolAsText(obj, key, props, propName, propFlag, "true", "false");
}

int32_t SaveIpv4Address(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                        const ConvertContext &) {
   char text[16];
   const uint32_t v = Fixed<uint32_t>(value, valueLen);
   if (inet_ntop(AF_INET, &v, text, sizeof text) == nullptr) {
      if (dvsconfigstore_debug >= 0) {
         printf("Failed to parse integer to Ipv4Address: %u\n", v);
      }
      return kConverterFailure;
   }
   return cs::SetValueStr(obj, key, text);
}

int32_t LoadIpv4Address(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                        uint64_t propFlag, const ConvertContext &) {
   char *s = nullptr;
   int32_t rc = cs::GetValueStr(obj, key, &s);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   struct in_addr addr;
   if (inet_pton(AF_INET, s, &addr) == 1) {
      rc = Update(props, propName, &addr, sizeof addr, propFlag);
   } else {
      rc = kConverterFailure;
   }
   free(s);
   return rc;
}

int32_t SaveResPoolKeyList(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                           const ConvertContext &) {
   return SaveNameArray(obj, key, value, valueLen, kResPoolKeyRecord, false);
}

int32_t LoadResPoolKeyList(cs::Object *obj, const char *key, DVSDataHandle props,
                           const char *propName, uint64_t propFlag, const ConvertContext &) {
   return LoadNameArray(obj, key, props, propName, propFlag, kResPoolKeys);
}

int32_t SaveUplinkKeyList(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                          const ConvertContext &) {
   return SaveNameArray(obj, key, value, valueLen, kUplinkKeyRecord, true);
}

int32_t LoadUplinkKeyList(cs::Object *obj, const char *key, DVSDataHandle props,
                          const char *propName, uint64_t propFlag, const ConvertContext &) {
   return LoadNameArray(obj, key, props, propName, propFlag, kUplinkKeys);
}

int32_t SaveSwitchVersion(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                          const ConvertContext &) {
   const uint32_t v = Fixed<uint32_t>(value, valueLen);
   for (const VersionText &ver : kVersions) {
      if (ver.number == v || ver.zltNumber == v) {
         return cs::SetValueStr(obj, key, ver.text);
      }
   }
   if (dvsconfigstore_debug >= 0) {
      // The number itself has never been part of this line: it shows the
      // text of a null pointer, spelt out here rather than passed as null.
      printf("Unknow version : %s\n", "(null)");
   }
   return kConverterFailure;
}

int32_t ReadSwitchVersion(cs::Object *switchObj, uint32_t *version) {
   cs::Object *product = nullptr;
   int32_t rc = cs::GetSubObject(switchObj, "product", "", &product);
   if (rc != cs::kSuccess) {
      if (dvsconfigstore_debug >= 0) {
         printf("Failed to get product obj, rc: %d\n", rc);
      }
      return rc;
   }
   char *text = nullptr;
   rc = cs::GetValueStr(product, "version", &text);
   if (rc != cs::kSuccess) {
      if (dvsconfigstore_debug >= 0) {
         printf("Failed to get version obj, rc: %d\n", rc);
      }
      return rc;
   }
   bool zlt = false;
   if (cs::GetValueBool(switchObj, "zlt_enabled", &zlt) != cs::kSuccess) {
      zlt = false;
      if (dvsconfigstore_debug > 0) {
         puts("Unabled to get zlt_enabled");
      }
   }
   rc = kConverterFailure;
   for (const VersionText &ver : kVersions) {
      if (strcmp(text, ver.text) == 0) {
         *version = zlt ? ver.zltNumber : ver.number;
         rc = cs::kSuccess;
         break;
      }
   }
   if (rc != cs::kSuccess && dvsconfigstore_debug >= 0) {
      printf("Unknown tds version %s\n", text);
   }
   free(text);
   return rc;
}

int32_t LoadSwitchVersion(cs::Object *, const char *, DVSDataHandle props, const char *propName,
                          uint64_t propFlag, const ConvertContext &ctx) {
   uint32_t v = 0;
   int32_t rc = ReadSwitchVersion(ctx.source, &v);
   if (rc != cs::kSuccess) {
      return rc;
   }
   return Update(props, propName, &v, sizeof v, propFlag);
}

int32_t SaveUplinkNameList(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                           const ConvertContext &) {
   return SaveNameArray(obj, key, value, valueLen, kUplinkNameSlot, false);
}

int32_t LoadUplinkNameList(cs::Object *obj, const char *key, DVSDataHandle props,
                           const char *propName, uint64_t propFlag, const ConvertContext &) {
   return LoadNameArray(obj, key, props, propName, propFlag, kUplinkNames);
}

// The key is always "tx_uplink", whichever row asks.
int32_t SaveTxUplink(cs::Object *obj, const char *, const void *value, uint32_t valueLen,
                     const ConvertContext &) {
   return cs::SetValueBool(obj, "tx_uplink", ValueIs(value, valueLen, "always"));
}

int32_t LoadTxUplink(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                     uint64_t propFlag, const ConvertContext &) {
   return LoadBoolAsText(obj, key, props, propName, propFlag, "always", "normal");
}

int32_t SavePtAllowed(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                      const ConvertContext &) {
   return cs::SetValueBool(obj, key, Fixed<uint32_t>(value, valueLen) == kPtAllowed);
}

int32_t LoadPtAllowed(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                      uint64_t propFlag, const ConvertContext &) {
   bool b = false;
   int32_t rc = cs::GetValueBool(obj, key, &b);
   if (rc != cs::kSuccess) {
      return AbsentIsSuccess(rc);
   }
   uint32_t v = b ? kPtAllowed : 0;
   return Update(props, propName, &v, sizeof v, propFlag);
}

int32_t SaveEnabledText(cs::Object *obj, const char *key, const void *value, uint32_t valueLen,
                        const ConvertContext &) {
   return cs::SetValueBool(obj, key, ValueIs(value, valueLen, "enabled"));
}

// False is kept as no property at all.
int32_t LoadEnabledText(cs::Object *obj, const char *key, DVSDataHandle props, const char *propName,
                        uint64_t propFlag, const ConvertContext &) {
   return LoadBoolAsText(obj, key, props, propName, propFlag, "enabled", nullptr);
}

// The port's resource pools are rebuilt elsewhere; nothing to do here.
int32_t SaveSkip(cs::Object *, const char *, const void *, uint32_t, const ConvertContext &) {
   return cs::kSuccess;
}

int32_t LoadSkip(cs::Object *, const char *, DVSDataHandle, const char *, uint64_t,
                 const ConvertContext &) {
   return cs::kSuccess;
}

}  // namespace dvs::configstore

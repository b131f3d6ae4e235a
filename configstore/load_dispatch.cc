// The load dispatcher: builds one property list (a switch's global or host
// list, or a port's data) from a store object by trying every row of the
// class's table in order, and adds it serialized to the switch's list.
#include <configstore.h>

#include <cstdlib>
#include <cstring>

#include "configstore/configstore_internal.h"
#include "configstore/converters.h"
#include "data/property_list.h"
#include "data/scratch_list_memory.h"

namespace dvs::configstore {

namespace cs = ::dvs::configstore::store_calls;

namespace {

constexpr uint64_t kLoadedPropFlag = 0x10;
constexpr const char *kPortResPoolsProp = "com.ostrel.common.port.respools.cfg";

bool Named(const PropConfigMapEntry *row, const char *name) {
   return std::strcmp(row->propName, name) == 0;
}

// Some properties exist once per family of switch classes and share one
// store key; only the one that fits the class of the switch is loaded.
bool RowFitsSwitchClass(const PropConfigMapEntry *row, uint32_t classKind) {
   const bool vswitchFamily = classKind != kClassKindOther;
   switch (row->convType) {
      case PROP_CONV_STRING:
         if (vswitchFamily) {
            return !Named(row, "com.ostrel.etherswitch.multicastFilter");
         }
         return !Named(row, "com.ostrel.vswitch.multicastFilter");
      case PROP_CONV_MTU:
         if (Named(row, "com.ostrel.vswitch.mtu")) {
            return classKind == kClassKindVswitch;
         }
         if (Named(row, "com.ostrel.etherswitch.mtu")) {
            return classKind == kClassKindOther;
         }
         return true;
      case PROP_CONV_TX_UPLINK:
         return Named(row, vswitchFamily ? "com.ostrel.vswitch.port.txUplink"
                                         : "com.ostrel.etherswitch.port.txUplink");
      default:
         return true;
   }
}

void PrintRowFailure(const PropConfigMapEntry *row, const char *key, int32_t rc) {
   CONFIGSTORE_FAIL("Faild to load prop: %s, key: %s, type:%d from configstore, rc: %d\n",
                    row->propName, key, static_cast<int>(row->convType), static_cast<int>(rc));
}

// Whether two rows' values sit in the same sub-object: the same path up
// to the value's key.
bool SameHolder(const PropConfigMapEntry *a, const PropConfigMapEntry *b) {
   if (a->depth != b->depth) {
      return false;
   }
   for (uint32_t i = 0; i + 1 < a->depth; i++) {
      if (std::strcmp(a->path[i], b->path[i]) != 0) {
         return false;
      }
   }
   return true;
}

// Converts every row of table that the store object src holds into list.
// Rows come grouped by the sub-object that holds their values, and a load
// changes nothing in the store objects, so a row whose value sits where
// the previous row's did reuses that walk (its object, or its "not
// found") instead of walking the path again.
int32_t LoadRows(const PropConfigMapEntry *table, uint32_t propClass, cs::Object *src,
                 const ConvertContext &switchCtx, DVSDataHandle list) {
   const PropConfigMapEntry *walked = nullptr;
   cs::Object *walkedTarget = nullptr;
   int32_t walkedRc = cs::kNotFound;
   for (const PropConfigMapEntry *row = table; row->propName != nullptr; row++) {
      cs::Object *target = src;
      int32_t rc;
      if (walked != nullptr && SameHolder(walked, row)) {
         target = walkedTarget;
         rc = walkedRc;
      } else {
         rc = WalkConfigPath(row->path, row->depth, src, false, &target);
         walked = row;
         walkedTarget = target;
         walkedRc = rc;
      }
      if (rc == cs::kNotFound) {
         continue;
      }
      if (rc != cs::kSuccess) {
         return rc;
      }
      const char *key = row->path[row->depth > 0 ? row->depth - 1 : 0];
      if (row->convType == PROP_CONV_SKIP) {
         continue;
      }
      const PropConverter *converter = GetPropConverter(row->convType);
      if (converter == nullptr) {
         PrintRowFailure(row, key, kConfigStoreOwnFailure);
         return kConfigStoreOwnFailure;
      }
      if (!RowFitsSwitchClass(row, switchCtx.classKind)) {
         continue;
      }
      ConvertContext ctx = switchCtx;
      ctx.propClass = propClass;
      ctx.propName = row->propName;
      ctx.source = src;
      ctx.switchObj = propClass == PROP_CLASS_PORT ? nullptr : src;
      rc = converter->load(target, key, list, row->propName, row->propFlag, ctx);
      if (rc != cs::kSuccess && rc != cs::kNotFound) {
         PrintRowFailure(row, key, rc);
         return rc;
      }
   }
   return cs::kSuccess;
}

// An uplink port's resource pools are those of its switch.
int32_t LoadPortResPools(cs::Object *resMgmt, const ConvertContext &switchCtx, DVSDataHandle list) {
   const PropConverter *converter = GetPropConverter(PROP_CONV_RESPOOL_CONFIG);
   if (converter == nullptr) {
      return kConfigStoreOwnFailure;
   }
   ConvertContext ctx = switchCtx;
   ctx.propClass = PROP_CLASS_PORT;
   ctx.propName = kPortResPoolsProp;
   ctx.source = resMgmt;
   ctx.switchObj = nullptr;
   const int32_t rc =
      converter->load(resMgmt, "traffic_resources", list, kPortResPoolsProp, kLoadedPropFlag, ctx);
   return AbsentIsSuccess(rc);
}

}  // namespace

ReturnStatus IntoPropList::Add(const char *name, uint32_t flag, DVSDataHandle list,
                               uint32_t version, bool nameIsNew) {
   return ::dvs::data::UpdateWithListBlob(list_, name, list, version, flag, nameIsNew);
}

int32_t LoadConfigProps(const char *listName, cs::Object *src, DVSDataHandle dest,
                        uint32_t propClass, const ConvertContext &switchCtx, cs::Object *resMgmt,
                        bool nameIsNew) {
   IntoPropList into(dest);
   return LoadConfigProps(listName, src, &into, propClass, switchCtx, resMgmt, nameIsNew);
}

int32_t LoadConfigProps(const char *listName, cs::Object *src, LoadedListDest *dest,
                        uint32_t propClass, const ConvertContext &switchCtx, cs::Object *resMgmt,
                        bool nameIsNew, ::dvs::data::ScratchListMemory *scratch) {
   CONFIGSTORE_PROGRESS("LoadProps: %s\n", listName);
   using Scratch = ::dvs::data::ScratchListMemory;
   DVSDataHandle list = nullptr;
   int32_t rc = kConfigStoreOwnFailure;
   if (propClass <= PROP_CLASS_PORT &&
       DVSData_Alloc(&list, scratch != nullptr ? Scratch::Alloc : std::malloc,
                     scratch != nullptr ? Scratch::Free : std::free) == STATUS_OK) {
      rc = LoadRows(GetConfigMap(static_cast<int32_t>(propClass)), propClass, src, switchCtx, list);
      if (rc == cs::kSuccess && propClass == PROP_CLASS_PORT && resMgmt != nullptr) {
         rc = LoadPortResPools(resMgmt, switchCtx, list);
      }
      if (rc == cs::kSuccess) {
         rc = dest->Add(listName, static_cast<uint32_t>(kLoadedPropFlag), list, switchCtx.version,
                        nameIsNew) == STATUS_OK
                 ? cs::kSuccess
                 : kConfigStoreOwnFailure;
      }
      DVSData_Free(list);
      if (scratch != nullptr) {
         scratch->Reset();
      }
   }
   if (rc != cs::kSuccess) {
      CONFIGSTORE_FAIL("Load dvs props from configstore failed, props type:%s\n", listName);
   }
   return rc;
}

}  // namespace dvs::configstore

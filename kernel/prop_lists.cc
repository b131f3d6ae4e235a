// Views of the kernel's switch state: one family of a switch's or a port's
// properties (vendor, extra-configuration, overlay), the ports of a switch
// of one type, and a port looked up by its external id.
//
// The switch-level views borrow the process-wide registry: they fetch the
// kernel's whole state, load it under the "dvshyp" lock, take what they
// need (a property list is detached from its switch so that the reset does
// not free it) and reset the registry before they let go of the lock, so
// that nobody ever sees the temporary load.  The port-level views decode
// the port's properties into a private list and take no lock.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kernel/kernel_internal.h"
#include "state/state_internal.h"

using dvs::state::StateLockGuard;

namespace dvs::kernel {
namespace {

constexpr uint32_t kTypeDefault = 0x20;
constexpr uint32_t kTypeSwitchLevel = 0x10;

// Switch versions above this one keep the teaming and tracking properties
// to themselves.
constexpr uint32_t kLastVersionSharingTeaming = 106;

constexpr const char kVersionProp[] = "com.ostrel.common.version";
constexpr const char kConnectIdProp[] = "com.ostrel.common.port.connectid";
constexpr const char kVnicExternalIdProp[] = "com.ostrel.port.extraConfig.vnic.external.id";
constexpr const char kHypnicExternalIdProp[] = "com.ostrel.port.extraConfig.hypnic.external.id";
constexpr const char kFcPortsetPrefix[] = "com.ostrel.net.portset.fc.";

// The system's own families; what a vendor list keeps is everything else.
// The names are matched anywhere in a property's name.  The spellings of
// the extra-configuration families differ on purpose (lower-case and with
// a trailing point for switches, "extraConfig" for ports).
constexpr const char kSwitchExtraConfig[] = "com.ostrel.extraconfig.";
constexpr const char kPortExtraConfig[] = "com.ostrel.port.extraConfig";
constexpr const char kVswitchFamily[] = "com.ostrel.vswitch.";
constexpr const char kVswitchDisabled[] = "com.ostrel.vswitch.disabled";
constexpr const char *kSwitchSystemFamilies[] = {
   "com.ostrel.common.", "com.ostrel.etherswitch.", kVswitchFamily,
   "dvfilter-generic-",  "com.ostrel.zltData.",
};
constexpr const char *kPortSystemFamilies[] = {
   "com.ostrel.common.",           "com.ostrel.etherswitch.",        kVswitchFamily,
   "com.ostrel.port.extraConfig.", "com.ostrel.port.opaque.network", "dvfilter-generic-",
};
constexpr const char kNetFamily[] = "com.ostrel.net.";
constexpr const char *kSwitchNewerOnly[] = {
   "com.ostrel.vswitch.teaming",
   "com.ostrel.zlt.vdr.dvptracking",
};

// Loads the kernel's state into the registry, finds the switch `sw` and
// runs work(dvs); always leaves the registry empty.  Nothing of the
// registry may escape `work` except lists it has detached.
template <typename Work>
ReturnStatus WithKernelSwitch(const char *sw, Work work) {
   void *state = nullptr;
   uint32_t len = 0;
   ReturnStatus status = DVSHYP_StateGet(&state, &len);
   if (status != STATUS_OK) {
      return status;
   }

   HypLockGuard hyp;
   // The switch handle is used past the find: hold the registry's own lock
   // from the load to the reset.
   StateLockGuard registry;
   status = DVSState_ConfigDeserialize(state, len);
   DVSHYP_DataFree(state);
   if (status == STATUS_OK) {
      DVSwitch *dvs = DVSState_SwitchFind(sw);
      status = dvs != nullptr ? work(dvs) : STATUS_NOT_FOUND;
   }
   DVSState_ConfigReset();
   return status;
}

// Takes the switch's global or host list away from it, so that the
// registry's reset leaves the list to the caller.  A switch read from a
// blob always has both lists; a missing one is reported, not handed out.
ReturnStatus TakeList(DVSwitch *dvs, bool host, DVSDataHandle *out) {
   DVS_ASSERT_HYP_LOCKED();
   DVS_ASSERT_STATE_LOCKED();
   DVSDataHandle &slot = host ? dvs->hostPropList : dvs->globalPropList;
   *out = slot;
   slot = nullptr;
   return *out != nullptr ? STATUS_OK : STATUS_NOT_FOUND;
}

// The first four bytes of a value as a host-order number; 0 when the value
// is shorter.
uint32_t LeadingU32(const void *value, uint32_t len) {
   uint32_t n = 0;
   if (value != nullptr && len >= sizeof n) {
      std::memcpy(&n, value, sizeof n);
   }
   return n;
}

// The kernel's version of the switch, or false when it cannot be read.
bool KernelSwitchVersion(const char *sw, uint32_t *version) {
   void *value = nullptr;
   uint32_t len = 0;
   if (DVSHYP_GlobalPropGet(sw, kVersionProp, &value, &len) != STATUS_OK) {
      return false;
   }
   *version = LeadingU32(value, len);
   DVSHYP_DataFree(value);
   return true;
}

// The length of a stored value read as text: up to its first NUL or its
// end, whichever comes first.
size_t ValueTextLen(const void *value, uint32_t len) {
   const void *nul = std::memchr(value, '\0', len);
   return nul != nullptr ? static_cast<size_t>(static_cast<const char *>(nul) -
                                               static_cast<const char *>(value))
                         : len;
}

// The port's external id, from the vnic property or else the hypnic one.
bool PortExternalId(DVSPort *port, const char **value, size_t *len) {
   void *data = nullptr;
   uint32_t dataLen = 0;
   if (DVSState_PortDataRead(port, kVnicExternalIdProp, &data, &dataLen) != STATUS_OK &&
       DVSState_PortDataRead(port, kHypnicExternalIdProp, &data, &dataLen) != STATUS_OK) {
      return false;
   }
   *value = static_cast<const char *>(data);
   *len = ValueTextLen(data, dataLen);
   return true;
}

struct PortListBuild {
   DVSHYPPortList *record;
   uint32_t capacity;
};

bool AppendPortOfType(DVSPort *port, void *ctx) {
   DVS_ASSERT_HYP_LOCKED();
   DVS_ASSERT_STATE_LOCKED();
   auto *build = static_cast<PortListBuild *>(ctx);
   DVSHYPPortList *record = build->record;
   if (port->portType != record->portType || record->count == build->capacity) {
      return false;
   }
   DVSHYPPortListEntry &entry = record->entries[record->count++];
   std::snprintf(entry.portId, sizeof entry.portId, "%s", DVS_PortId(port));
   void *value = nullptr;
   uint32_t len = 0;
   entry.connectionId = DVSState_PortDataRead(port, kConnectIdProp, &value, &len) == STATUS_OK
                           ? LeadingU32(value, len)
                           : 0;
   return false;
}

struct ExternalIdSearch {
   DVSHYPPortSearch *record;
   size_t searchedLen;
};

// Matches when the port's value is a prefix of the searched id: the
// comparison runs over the value's length only, so an empty value matches
// any id.
bool MatchExternalId(DVSPort *port, void *ctx) {
   DVS_ASSERT_HYP_LOCKED();
   DVS_ASSERT_STATE_LOCKED();
   auto *search = static_cast<ExternalIdSearch *>(ctx);
   const char *value = nullptr;
   size_t len = 0;
   if (!PortExternalId(port, &value, &len)) {
      return false;
   }
   if (len > search->searchedLen || std::memcmp(value, search->record->externalId, len) != 0) {
      return false;
   }
   std::snprintf(search->record->portId, sizeof search->record->portId, "%s", DVS_PortId(port));
   return true;
}

}  // namespace

ReturnStatus FetchPortProps(const char *sw, const char *port, DVSDataHandle *out) {
   void *blob = nullptr;
   uint32_t len = 0;
   ReturnStatus status = DVSHYP_PortStateGet(sw, port, &blob, &len);
   if (status != STATUS_OK) {
      return status;
   }
   status = DVSData_Deserialize(out, blob, len, std::malloc, std::free);
   DVSHYP_DataFree(blob);
   return status;
}

namespace {

// The start of the per-port list calls: checks the caller's arguments,
// clears its out pointer and fetches the port's properties into *list.
ReturnStatus FetchCallerPortProps(const char *sw, const char *port, DVSDataHandle *out,
                                  DVSDataHandle *list) {
   if (sw == nullptr || port == nullptr || out == nullptr) {
      return STATUS_BAD_PARAM;
   }
   *out = nullptr;
   return FetchPortProps(sw, port, list);
}

}  // namespace

}  // namespace dvs::kernel

using namespace dvs::kernel;

extern "C" {

DVS_EXPORT ReturnStatus DVSHYPVendorPropList(const char *sw, DVSDataHandle *out, uint32_t type,
                                             bool host) {
   if (sw == nullptr || out == nullptr) {
      return STATUS_BAD_PARAM;
   }
   *out = nullptr;
   DVSDataHandle list = nullptr;
   ReturnStatus status = WithKernelSwitch(sw, [&](DVSwitch *dvs) {
      ReturnStatus taken = TakeList(dvs, host, &list);
      if (taken != STATUS_OK) {
         return taken;
      }
      if (!host) {
         DVSHYPStripNamedPropForType(list, kSwitchExtraConfig, nullptr, type);
      }
      const char *vswitchExceptions[] = {kVswitchDisabled, nullptr};
      for (const char *family : kSwitchSystemFamilies) {
         DVSHYPStripNamedPropForType(list, family,
                                     family == kVswitchFamily ? vswitchExceptions : nullptr, type);
      }
      return STATUS_OK;
   });
   if (status != STATUS_OK) {
      return status;
   }

   // The list is ours now: the version is asked of the kernel without any
   // lock held.  A version that cannot be read leaves the list as it is.
   uint32_t version = 0;
   if (KernelSwitchVersion(sw, &version) && version > kLastVersionSharingTeaming) {
      for (const char *family : kSwitchNewerOnly) {
         DVSHYPStripNamedPropForType(list, family, nullptr, type);
      }
   }
   *out = list;
   return STATUS_OK;
}

DVS_EXPORT ReturnStatus DVSHYP_VendorGlobalPropList(const char *sw, DVSDataHandle *out,
                                                    uint32_t type) {
   return DVSHYPVendorPropList(sw, out, type, false);
}

DVS_EXPORT ReturnStatus DVSHYP_VendorHostPropList(const char *sw, DVSDataHandle *out,
                                                  uint32_t type) {
   return DVSHYPVendorPropList(sw, out, type, true);
}

DVS_EXPORT ReturnStatus DVSHYP_ExtraConfigPropList(const char *sw, DVSDataHandle *out,
                                                   uint32_t type) {
   if (sw == nullptr || out == nullptr) {
      return STATUS_BAD_PARAM;
   }
   *out = nullptr;
   return WithKernelSwitch(sw, [&](DVSwitch *dvs) {
      DVSDataHandle list = nullptr;
      ReturnStatus status = TakeList(dvs, false, &list);
      if (status == STATUS_OK) {
         DVSHYPExtractNamedPropForType(list, kSwitchExtraConfig, type);
         *out = list;
      }
      return status;
   });
}

DVS_EXPORT ReturnStatus DVSHYP_ZltPropList(const char *sw, uint32_t type, bool global,
                                           DVSDataHandle *out) {
   if (sw == nullptr || out == nullptr) {
      return STATUS_BAD_PARAM;
   }
   *out = nullptr;
   // Unlike the vendor lists, the flag names the global list.
   return WithKernelSwitch(sw, [&](DVSwitch *dvs) {
      DVSDataHandle list = nullptr;
      ReturnStatus status = TakeList(dvs, !global, &list);
      if (status != STATUS_OK) {
         return status;
      }
      FilterList(list, [&](DVSDataEntry *e) {
         if (DVSData_IsSamePropType(e, type) && IsZltProp(e->name)) {
            return true;
         }
         // Fibre-channel port-set properties also join a list asked for
         // with type 0x10, whatever their own type.
         return type == kTypeSwitchLevel &&
                std::strncmp(e->name, kFcPortsetPrefix, sizeof kFcPortsetPrefix - 1) == 0;
      });
      *out = list;
      return STATUS_OK;
   });
}

DVS_EXPORT ReturnStatus DVSHYP_SwitchPortList(const char *sw, DVSHYPPortList **out,
                                              uint32_t portType) {
   if (sw == nullptr || out == nullptr) {
      return STATUS_BAD_PARAM;
   }
   *out = nullptr;
   return WithKernelSwitch(sw, [&](DVSwitch *dvs) {
      // Room for every port of the switch, whatever its type.
      const size_t bytes =
         sizeof(DVSHYPPortList) + size_t{dvs->numPorts} * sizeof(DVSHYPPortListEntry);
      auto *record = static_cast<DVSHYPPortList *>(std::calloc(1, bytes));
      if (record == nullptr) {
         return STATUS_NO_MEMORY;
      }
      record->count = 0;
      record->portType = portType;
      PortListBuild build{record, dvs->numPorts};
      DVSState_PortForEach(dvs, AppendPortOfType, &build);
      *out = record;
      return STATUS_OK;
   });
}

DVS_EXPORT ReturnStatus DVSHYP_PortGetByExternalId(const char *sw, const char *externalId,
                                                   DVSHYPPortSearch **out) {
   if (sw == nullptr || externalId == nullptr || out == nullptr) {
      return STATUS_BAD_PARAM;
   }
   *out = nullptr;
   const size_t searchedLen = std::strlen(externalId);
   if (searchedLen >= sizeof(DVSHYPPortSearch::externalId)) {
      return STATUS_BAD_PARAM;
   }
   return WithKernelSwitch(sw, [&](DVSwitch *dvs) {
      auto *record = static_cast<DVSHYPPortSearch *>(std::calloc(1, sizeof(DVSHYPPortSearch)));
      if (record == nullptr) {
         return STATUS_NO_MEMORY;
      }
      std::memcpy(record->externalId, externalId, searchedLen + 1);
      ExternalIdSearch search{record, searchedLen};
      DVSState_PortForEach(dvs, MatchExternalId, &search);
      *out = record;
      return STATUS_OK;
   });
}

DVS_EXPORT ReturnStatus DVSHYP_VendorPortPropList(const char *sw, const char *port,
                                                  DVSDataHandle *out, uint32_t type) {
   DVSDataHandle list = nullptr;
   if (ReturnStatus status = FetchCallerPortProps(sw, port, out, &list); status != STATUS_OK) {
      return status;
   }
   for (const char *family : kPortSystemFamilies) {
      DVSHYPStripNamedPropForType(list, family, nullptr, type);
   }
   if (type == kTypeDefault) {
      DVSHYPStripNamedPropForType(list, kNetFamily, nullptr, kTypeDefault);
   }
   *out = list;
   return STATUS_OK;
}

DVS_EXPORT ReturnStatus DVSHYP_ExtraConfigPortPropList(const char *sw, const char *port,
                                                       DVSDataHandle *out, uint32_t type) {
   DVSDataHandle list = nullptr;
   if (ReturnStatus status = FetchCallerPortProps(sw, port, out, &list); status != STATUS_OK) {
      return status;
   }
   DVSHYPExtractNamedPropForType(list, kPortExtraConfig, type);
   *out = list;
   return STATUS_OK;
}

}  // extern "C"

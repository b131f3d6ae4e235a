// Filters over property lists: the name and type tests that cut a list
// taken from the kernel down to one family of properties, and the test for
// the properties of the network-virtualisation overlay.
//
// Name tests look for the fragment anywhere in the name, not only at its
// start.  Every filter walks the list once and reports the status with
// which the walk ended (STATUS_NOT_FOUND past the last entry); callers
// ignore it.
#include <cstring>

#include "kernel/kernel_internal.h"

namespace dvs::kernel {
namespace {

// Names that begin with one of these belong to the overlay.  They are
// tested in this order.
constexpr const char *kZltPrefixes[] = {
   "com.ostrel.zltData.",
   "com.ostrel.vswitch.teaming",
   "com.ostrel.zlt.",
   "com.ostrel.common.opaqueDvs.",
   "com.ostrel.host.feature.container",
   "com.ostrel.extraconfig.opaqueDvs.",
   "com.ostrel.vswitch.disabled",
   "com.ostrel.net.portset.fc.",
   "com.ostrel.extraConfig.tenancy.",
};

bool NameContains(const DVSDataEntry *entry, const char *fragment) {
   return std::strstr(entry->name, fragment) != nullptr;
}

// Whether the name equals one of the names of a null-terminated array (a
// null array holds none).
bool IsException(const DVSDataEntry *entry, const char *const *exceptions) {
   if (exceptions == nullptr) {
      return false;
   }
   for (; *exceptions != nullptr; exceptions++) {
      if (std::strncmp(entry->name, *exceptions, DVSDATA_NAME_MAX) == 0) {
         return true;
      }
   }
   return false;
}

}  // namespace

// The list's own remove takes the first entry of the name; a list read
// from a blob may hold a name more than once, and when an earlier entry of
// that name was kept, that would drop the wrong one (possibly the walk's
// current position), so then the entry is unlinked here directly.
void RemoveEntry(DVSDataHandle list, DVSDataEntry *prev, DVSDataEntry *entry) {
   DVSDataEntry *first = nullptr;
   if (DVSData_Lookup(list, entry->name, &first) == STATUS_OK && first == entry) {
      DVSData_Remove(list, entry->name);
      return;
   }
   if (prev == nullptr) {
      list->head = entry->next;
   } else {
      prev->next = entry->next;
   }
   if (list->tail == entry) {
      list->tail = prev;
   }
   list->serialSize -= entry->serialLen;
   list->freeFn(entry);
}

}  // namespace dvs::kernel

using namespace dvs::kernel;

extern "C" {

DVS_EXPORT bool IsZltProp(const char *name) {
   if (name == nullptr) {
      return false;
   }
   for (const char *prefix : kZltPrefixes) {
      if (std::strncmp(name, prefix, std::strlen(prefix)) == 0) {
         return true;
      }
   }
   return false;
}

DVS_EXPORT ReturnStatus DVSHYPStripNamedProp(DVSDataHandle list, const char *substr) {
   if (list == nullptr || substr == nullptr) {
      return STATUS_BAD_PARAM;
   }
   return FilterList(list, [&](const DVSDataEntry *e) { return !NameContains(e, substr); });
}

DVS_EXPORT ReturnStatus DVSHYPStripNamedPropForType(DVSDataHandle list, const char *substr,
                                                    const char **exceptions, uint32_t type) {
   if (list == nullptr || substr == nullptr) {
      return STATUS_BAD_PARAM;
   }
   return FilterList(list, [&](DVSDataEntry *e) {
      return (DVSData_IsSamePropType(e, type) && !NameContains(e, substr)) ||
             IsException(e, exceptions);
   });
}

DVS_EXPORT ReturnStatus DVSHYPExtractNamedPropForType(DVSDataHandle list, const char *substr,
                                                      uint32_t type) {
   if (list == nullptr || substr == nullptr) {
      return STATUS_BAD_PARAM;
   }
   return FilterList(list, [&](DVSDataEntry *e) {
      return DVSData_IsSamePropType(e, type) && NameContains(e, substr);
   });
}

}  // extern "C"

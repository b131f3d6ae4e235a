// The simulator's switch state: its rules and its host configuration blob.
// The blob writers follow the library's own writers record for record, so
// that the library cannot tell a simulated kernel's state from a real one.
#include "sim/sim_state.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace dvs::sim {
namespace {

// Reads a 4-byte unsigned value; a value of any other size is malformed.
ReturnStatus LookupU32(DVSDataHandle list, const char *name, uint32_t *out) {
   DVSDataEntry *entry = nullptr;
   const ReturnStatus status = DVSData_Lookup(list, name, &entry);
   if (status != STATUS_OK) {
      return status;
   }
   void *data = nullptr;
   if (DVSData_Data(entry, &data) != sizeof(uint32_t)) {
      return STATUS_BAD_PARAM;
   }
   std::memcpy(out, data, sizeof(uint32_t));
   return STATUS_OK;
}

std::string_view EntryValue(DVSDataEntry *entry) {
   void *data = nullptr;
   const uint32_t len = DVSData_Data(entry, &data);
   return {static_cast<const char *>(data), len};
}

ReturnStatus Decode(std::string_view blob, PropList *out) {
   if (blob.size() > UINT32_MAX) {
      return STATUS_BAD_PARAM;
   }
   DVSDataHandle list = nullptr;
   const ReturnStatus status = DVSData_Deserialize(
      &list, blob.data(), static_cast<uint32_t>(blob.size()), std::malloc, std::free);
   if (status == STATUS_OK) {
      out->reset(list);
   }
   return status;
}

// Takes a nested property list out of a switch list; a switch blob without
// it gets an empty list.
ReturnStatus TakeNestedList(DVSDataHandle switchList, const char *name, PropList *out) {
   DVSDataEntry *entry = nullptr;
   if (DVSData_Lookup(switchList, name, &entry) != STATUS_OK) {
      *out = NewList();
      return *out ? STATUS_OK : STATUS_NO_MEMORY;
   }
   const ReturnStatus status = Decode(EntryValue(entry), out);
   if (status == STATUS_OK) {
      DVSData_Remove(switchList, name);
   }
   return status;
}

ReturnStatus DecodeSwitch(const char *id, std::string_view blob, Switch *sw) {
   PropList list;
   ReturnStatus status = Decode(blob, &list);
   if (status == STATUS_OK) {
      status = TakeNestedList(list.get(), DVS_REC_HOST_PROPS, &sw->host);
   }
   if (status == STATUS_OK) {
      status = TakeNestedList(list.get(), DVS_REC_GLOBAL_PROPS, &sw->global);
   }
   if (status == STATUS_OK) {
      status = LookupU32(list.get(), DVS_REC_SWITCH_VERSION, &sw->version);
   }
   DVSDataEntry *classEntry = nullptr;
   if (status == STATUS_OK) {
      status = DVSData_Lookup(list.get(), DVS_REC_CLASS_NAME, &classEntry);
   }
   if (status == STATUS_OK) {
      // Text up to its terminator, at most 127 characters of the value.
      const std::string_view value = EntryValue(classEntry);
      sw->className.assign(value.data(),
                           strnlen(value.data(), std::min<size_t>(value.size(), 127)));
      status = LookupU32(list.get(), DVS_REC_MAX_PORTS, &sw->maxPorts);
   }
   if (status != STATUS_OK) {
      return status;
   }
   sw->id = id;
   for (const char *name : {DVS_REC_CLASS_NAME, DVS_REC_MAX_PORTS, DVS_REC_SWITCH_VERSION}) {
      DVSData_Remove(list.get(), name);
   }

   // What is left is one record per port, in the switch's port order.
   for (DVSDataEntry *entry = nullptr; DVSData_Next(list.get(), entry, &entry) == STATUS_OK;) {
      Port port;
      status = DecodePort(EntryValue(entry), &port);
      if (status != STATUS_OK) {
         return status;
      }
      port.id = DVSData_Name(entry);
      // A blob may hold more ports than the limit: the limit may have been
      // lowered after they were added.
      status = AddPort(*sw, std::move(port), false);
      if (status != STATUS_OK) {
         return status;
      }
   }
   return STATUS_OK;
}

ReturnStatus AddNestedList(DVSDataHandle out, DVSDataHandle list, uint32_t version,
                           const char *name) {
   Bytes nested;
   const ReturnStatus status = SerializeList(list, version, &nested);
   if (status != STATUS_OK) {
      return status;
   }
   return DVSData_Update(out, name, nested.data(), static_cast<uint32_t>(nested.size()),
                         kSwitchLevelFlag);
}

ReturnStatus EncodeSwitch(const Switch &sw, Bytes *blob) {
   PropList list = NewList();
   if (!list) {
      return STATUS_NO_MEMORY;
   }
   ReturnStatus status = DVSData_Update(list.get(), DVS_REC_SWITCH_VERSION, &sw.version,
                                        sizeof sw.version, kSwitchLevelFlag);
   if (status == STATUS_OK) {
      char className[DVS_CLASS_NAME_MAX] = {};
      sw.className.copy(className, sizeof className - 1);
      status = DVSData_Update(list.get(), DVS_REC_CLASS_NAME, className, sizeof className,
                              kSwitchLevelFlag);
   }
   if (status == STATUS_OK) {
      status = DVSData_Update(list.get(), DVS_REC_MAX_PORTS, &sw.maxPorts, sizeof sw.maxPorts,
                              kSwitchLevelFlag);
   }
   if (status == STATUS_OK) {
      status = AddNestedList(list.get(), sw.global.get(), sw.version, DVS_REC_GLOBAL_PROPS);
   }
   if (status == STATUS_OK) {
      status = AddNestedList(list.get(), sw.host.get(), sw.version, DVS_REC_HOST_PROPS);
   }
   // Ports may share an id (an active and a shadow port): appended, not
   // updated.
   for (const Port &port : sw.ports) {
      Bytes portBlob;
      if (status == STATUS_OK) {
         status = EncodePort(sw, port, &portBlob);
      }
      if (status == STATUS_OK) {
         status = DVSData_Append(list.get(), port.id.c_str(), portBlob.data(),
                                 static_cast<uint32_t>(portBlob.size()), kSwitchLevelFlag);
      }
   }
   if (status == STATUS_OK) {
      status = SerializeList(list.get(), sw.version, blob);
   }
   return status;
}

}  // namespace

Port *Switch::FindPort(std::string_view portId) {
   Port *first = nullptr;
   for (Port &port : ports) {
      if (port.id != portId) {
         continue;
      }
      if (port.type == DVS_PORT_ACTIVE) {
         return &port;
      }
      if (first == nullptr) {
         first = &port;
      }
   }
   return first;
}

Switch *HostState::FindSwitch(std::string_view id) {
   for (Switch &sw : switches) {
      if (sw.id == id) {
         return &sw;
      }
   }
   return nullptr;
}

PropList NewList() {
   DVSDataHandle list = nullptr;
   if (DVSData_Alloc(&list, std::malloc, std::free) != STATUS_OK) {
      return nullptr;
   }
   return PropList(list);
}

bool VersionAccepted(uint32_t version) {
   return version == 100 || (version >= 4 && version <= 10) || (version >= 107 && version <= 110);
}

ReturnStatus AddSwitch(HostState &host, Switch sw) {
   if (sw.id.empty() || sw.id.size() >= DVS_SWITCH_ID_MAX ||
       sw.className.size() >= DVS_CLASS_NAME_MAX) {
      return STATUS_BAD_PARAM;
   }
   if (!VersionAccepted(sw.version)) {
      return STATUS_NOT_SUPPORTED;
   }
   if (host.FindSwitch(sw.id) != nullptr) {
      return STATUS_EXISTS;
   }
   if (host.switches.size() >= kMaxSwitches) {
      return STATUS_LIMIT_EXCEEDED;
   }
   if (!sw.global) {
      sw.global = NewList();
   }
   if (!sw.host) {
      sw.host = NewList();
   }
   if (!sw.global || !sw.host) {
      return STATUS_NO_MEMORY;
   }
   host.switches.push_back(std::move(sw));
   return STATUS_OK;
}

ReturnStatus AddPort(Switch &sw, Port port, bool enforceLimit) {
   if (port.id.empty() || port.id.size() >= DVS_PORT_ID_MAX || port.type < DVS_PORT_ACTIVE ||
       port.type > DVS_PORT_LOCAL_CACHE) {
      return STATUS_BAD_PARAM;
   }
   if (port.type != DVS_PORT_ZOMBIE) {
      for (const Port &existing : sw.ports) {
         if (existing.type == port.type && existing.id == port.id) {
            return STATUS_EXISTS;
         }
      }
   }
   if (enforceLimit && sw.maxPorts != 0 && sw.ports.size() >= sw.maxPorts) {
      return STATUS_LIMIT_EXCEEDED;
   }
   if (!port.data) {
      port.data = NewList();
      if (!port.data) {
         return STATUS_NO_MEMORY;
      }
   }
   sw.ports.push_back(std::move(port));
   return STATUS_OK;
}

ReturnStatus DecodePort(std::string_view blob, Port *port) {
   ReturnStatus status = Decode(blob, &port->data);
   if (status != STATUS_OK) {
      return status;
   }
   status = LookupU32(port->data.get(), DVS_PROP_PORT_TYPE, &port->type);
   if (status == STATUS_NOT_FOUND) {
      port->type = DVS_PORT_ACTIVE;
      return STATUS_OK;
   }
   DVSData_Remove(port->data.get(), DVS_PROP_PORT_TYPE);
   return status;
}

ReturnStatus EncodePort(const Switch &sw, const Port &port, Bytes *blob) {
   // A copy without any stored type record: the blob always carries the
   // port's real type.
   PropList copy = NewList();
   if (!copy) {
      return STATUS_NO_MEMORY;
   }
   ReturnStatus status = STATUS_OK;
   for (DVSDataEntry *e = nullptr;
        status == STATUS_OK && DVSData_Next(port.data.get(), e, &e) == STATUS_OK;) {
      if (std::strcmp(DVSData_Name(e), DVS_PROP_PORT_TYPE) != 0) {
         const std::string_view value = EntryValue(e);
         status = DVSData_Append(copy.get(), DVSData_Name(e), value.data(),
                                 static_cast<uint32_t>(value.size()), DVSData_PropType(e));
      }
   }
   if (status == STATUS_OK && port.type != DVS_PORT_ACTIVE) {
      status = DVSData_Append(copy.get(), DVS_PROP_PORT_TYPE, &port.type, sizeof port.type,
                              kPortTypeFlag);
   }
   if (status == STATUS_OK) {
      status = SerializeList(copy.get(), sw.version, blob);
   }
   return status;
}

ReturnStatus EncodeHost(const HostState &host, Bytes *blob) {
   PropList list = NewList();
   if (!list) {
      return STATUS_NO_MEMORY;
   }
   for (const Switch &sw : host.switches) {
      Bytes switchBlob;
      ReturnStatus status = EncodeSwitch(sw, &switchBlob);
      if (status == STATUS_OK) {
         status = DVSData_Update(list.get(), sw.id.c_str(), switchBlob.data(),
                                 static_cast<uint32_t>(switchBlob.size()), kSwitchLevelFlag);
      }
      if (status != STATUS_OK) {
         return status;
      }
   }
   return SerializeList(list.get(), kHostBlobVersion, blob);
}

ReturnStatus DecodeHost(std::string_view blob, HostState *out) {
   PropList list;
   ReturnStatus status = Decode(blob, &list);
   if (status != STATUS_OK) {
      return status;
   }
   HostState host;
   for (DVSDataEntry *entry = nullptr; DVSData_Next(list.get(), entry, &entry) == STATUS_OK;) {
      Switch sw;
      status = DecodeSwitch(DVSData_Name(entry), EntryValue(entry), &sw);
      if (status == STATUS_OK) {
         status = AddSwitch(host, std::move(sw));
      }
      if (status != STATUS_OK) {
         return status;
      }
   }
   *out = std::move(host);
   return STATUS_OK;
}

ReturnStatus SerializeList(DVSDataHandle list, uint32_t version, Bytes *blob) {
   void *raw = nullptr;
   uint32_t len = 0;
   const ReturnStatus status = DVSData_Serialize(list, &raw, &len, version);
   if (status != STATUS_OK) {
      return status;
   }
   blob->assign(static_cast<const char *>(raw), len);
   DVSData_FreeAssocData(list, raw);
   return STATUS_OK;
}

ReturnStatus LookupValue(DVSDataHandle list, const std::string &name, Bytes *value) {
   DVSDataEntry *entry = nullptr;
   const ReturnStatus status = DVSData_Lookup(list, name.c_str(), &entry);
   if (status == STATUS_OK) {
      *value = Bytes(EntryValue(entry));
   }
   return status;
}

size_t CountEntries(DVSDataHandle list) {
   size_t count = 0;
   for (DVSDataEntry *e = nullptr; DVSData_Next(list, e, &e) == STATUS_OK;) {
      count++;
   }
   return count;
}

}  // namespace dvs::sim

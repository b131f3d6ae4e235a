// The switch state that the kernel simulator keeps in memory, the rules its
// commands apply to it, and its conversion to and from the host
// configuration blob.
//
// This is the simulator's own model: it never touches the library's
// process-wide registry (DVSState_*), so a simulator can run inside a
// process that also uses the registry.  Property lists are DVSData lists,
// so the blobs come out byte for byte as the library writes them.
#ifndef DVS_SIM_SIM_STATE_H
#define DVS_SIM_SIM_STATE_H

#include <dvsdata.h>
#include <dvsstate.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace dvs::sim {

// Byte strings: blobs, values, command input and output.
using Bytes = std::string;

struct ListFree {
   void operator()(DVSData *list) const { DVSData_Free(list); }
};
// A property list on the process allocator, released with the owner.
using PropList = std::unique_ptr<DVSData, ListFree>;

// Most switches the host holds at once, as the library's registry.
constexpr size_t kMaxSwitches = DVS_MAX_SWITCHES;
// Flag word of the records of the host and switch blobs.
constexpr uint32_t kSwitchLevelFlag = 0x10;
// Version given to the writer of the host blob.
constexpr uint32_t kHostBlobVersion = 9;
// Flag word of the port type record added to non-active ports' blobs.
constexpr uint32_t kPortTypeFlag = DVSDATA_DEFAULT_PROP_TYPE;

struct UplinkValue {
   Bytes value;
   uint32_t flag = 0;
};

struct Port {
   std::string id;
   uint32_t type = DVS_PORT_ACTIVE;
   PropList data;
   // Uplink data by uplink index; kernel-only, never part of a blob.
   std::map<int32_t, UplinkValue> uplinks;
};

struct Switch {
   std::string id;
   std::string className;
   uint32_t maxPorts = 0;
   uint32_t version = 0;
   bool associated = false;
   PropList global;
   PropList host;
   // In the order they were added, which is the order of the switch blob.
   std::vector<Port> ports;

   // The port that port commands address by id: the active port of that id
   // when there is one, otherwise the first port of that id.
   Port *FindPort(std::string_view portId);
};

struct HostState {
   // In the order they were added, which is the order of the host blob.
   std::vector<Switch> switches;

   Switch *FindSwitch(std::string_view id);
};

// A new empty list, or null when memory runs out.
PropList NewList();

// Switch versions the host runs, as the library's switch add accepts them.
bool VersionAccepted(uint32_t version);

// Adds a switch: STATUS_BAD_PARAM for an empty or over-long id or class
// name, STATUS_EXISTS for a known id, STATUS_LIMIT_EXCEEDED past
// kMaxSwitches, STATUS_NOT_SUPPORTED for a version the host does not run.
ReturnStatus AddSwitch(HostState &host, Switch sw);

// Adds a port: STATUS_BAD_PARAM for an empty or over-long id,
// STATUS_EXISTS when a port of that id and type exists (zombie ports may
// repeat), STATUS_LIMIT_EXCEEDED when enforceLimit is set and the switch
// already holds maxPorts ports (0 means no limit).
ReturnStatus AddPort(Switch &sw, Port port, bool enforceLimit);

// Builds a port from its DVSData blob.  The port is active unless the blob
// holds DVS_PROP_PORT_TYPE (a 4-byte type), which is taken out of the data.
ReturnStatus DecodePort(std::string_view blob, Port *port);

// The port's blob: its data with the switch's version, plus
// DVS_PROP_PORT_TYPE for a port that is not active, so that its type
// survives a trip through a host blob.
ReturnStatus EncodePort(const Switch &sw, const Port &port, Bytes *blob);

// The whole state as a host configuration blob in the library's format.
ReturnStatus EncodeHost(const HostState &host, Bytes *blob);

// Builds a whole state from a host configuration blob.  A damaged blob is
// refused with the status of the first problem and *host is left as it was.
ReturnStatus DecodeHost(std::string_view blob, HostState *host);

// The list as a blob (the library's serializer), copied into *blob.
ReturnStatus SerializeList(DVSDataHandle list, uint32_t version, Bytes *blob);

// A copy of the value of `name` in the list; STATUS_NOT_FOUND when absent.
ReturnStatus LookupValue(DVSDataHandle list, const std::string &name, Bytes *value);

// Number of entries of a list.
size_t CountEntries(DVSDataHandle list);

}  // namespace dvs::sim

#endif  // DVS_SIM_SIM_STATE_H

// The byte layouts of the structured switch and port properties: packed
// records in host byte order, as the kernel keeps them.  The store
// converters and dvsctl's property codecs both read and write values
// through these definitions, so a layout and its constants live here and
// nowhere else.  Header-only, no dependency beyond the standard library.
#ifndef DVS_CONFIGSTORE_PROPERTY_LAYOUTS_H
#define DVS_CONFIGSTORE_PROPERTY_LAYOUTS_H

#include <cstddef>
#include <cstdint>

namespace dvs::layouts {

// ---- name lists -------------------------------------------------------------
// A uint32 count, then that many fixed-width records, each a NUL-padded
// name (uplink names, uplink port keys, resource pool keys).  The count
// word is also the head of the LACP group table.
constexpr uint32_t kCountSize = sizeof(uint32_t);
constexpr uint32_t kUplinkNameSlot = 81;  // up to 80 characters and the NUL
constexpr uint32_t kUplinkKeyRecord = 48;
constexpr uint32_t kResPoolKeyRecord = 200;
// A pool key uses at most this many characters of its record.
constexpr uint32_t kResPoolKeyNameMax = 128;

// ---- uplink teaming policy -----------------------------------------------------
constexpr uint32_t kTeamingUplinkSlots = 32;

#pragma pack(push, 1)
struct UplinkTeamingPolicy {
   uint32_t policy;
   uint32_t failureFlags;
   uint8_t percentage;
   uint8_t fullDuplex;
   uint16_t speed;
   uint32_t teamingFlags;
   uint32_t numActive;
   uint32_t numStandby;
   // The active names first, then the standby ones.
   char uplinkNames[kTeamingUplinkSlots][kUplinkNameSlot];
};
#pragma pack(pop)
static_assert(sizeof(UplinkTeamingPolicy) == 2616, "teaming policy size");
static_assert(offsetof(UplinkTeamingPolicy, failureFlags) == 4, "teaming policy layout");
static_assert(offsetof(UplinkTeamingPolicy, percentage) == 8, "teaming policy layout");
static_assert(offsetof(UplinkTeamingPolicy, fullDuplex) == 9, "teaming policy layout");
static_assert(offsetof(UplinkTeamingPolicy, speed) == 10, "teaming policy layout");
static_assert(offsetof(UplinkTeamingPolicy, teamingFlags) == 12, "teaming policy layout");
static_assert(offsetof(UplinkTeamingPolicy, numActive) == 16, "teaming policy layout");
static_assert(offsetof(UplinkTeamingPolicy, numStandby) == 20, "teaming policy layout");
static_assert(offsetof(UplinkTeamingPolicy, uplinkNames) == 24, "teaming policy layout");

// ---- LACP ---------------------------------------------------------------------
// The switch property: a count word and that many groups.  The port
// property: one LacpPortPolicy.
constexpr uint32_t kLacpGroupNameSlot = 65;  // up to 64 characters and the NUL
constexpr uint32_t kLacpGroupKeySlot = 16;   // up to 15 characters and the NUL

#pragma pack(push, 1)
struct LacpGroupEntry {
   char name[kLacpGroupNameSlot];
   char key[kLacpGroupKeySlot];
   uint32_t mode;
   uint32_t loadBalanceAlgorithm;
   uint32_t uplinkNum;
};

struct LacpPortPolicy {
   uint8_t enabled;
   uint8_t reserved[3];
   uint32_t mode;
};
#pragma pack(pop)
static_assert(sizeof(LacpGroupEntry) == 93, "LACP group size");
static_assert(offsetof(LacpGroupEntry, key) == 65, "LACP group layout");
static_assert(offsetof(LacpGroupEntry, mode) == 81, "LACP group layout");
static_assert(offsetof(LacpGroupEntry, loadBalanceAlgorithm) == 85, "LACP group layout");
static_assert(offsetof(LacpGroupEntry, uplinkNum) == 89, "LACP group layout");
static_assert(sizeof(LacpPortPolicy) == 8, "LACP port policy size");
static_assert(offsetof(LacpPortPolicy, reserved) == 1, "LACP port policy layout");
static_assert(offsetof(LacpPortPolicy, mode) == 4, "LACP port policy layout");

// ---- private VLAN map -----------------------------------------------------------
// A packed array of entries.  Switches of the "cswitch" class, and every
// switch of a version above this one, keep the map in the vswitch
// property; the others in the etherswitch one.
constexpr uint32_t kLastEtherPvlanVersion = 106;

#pragma pack(push, 1)
struct PvlanMapEntry {
   uint16_t primaryId;
   uint16_t secondaryId;
   uint8_t pvlanType;
   uint8_t reserved[3];
};
#pragma pack(pop)
static_assert(sizeof(PvlanMapEntry) == 8, "private VLAN entry size");
static_assert(offsetof(PvlanMapEntry, secondaryId) == 2, "private VLAN entry layout");
static_assert(offsetof(PvlanMapEntry, pvlanType) == 4, "private VLAN entry layout");
static_assert(offsetof(PvlanMapEntry, reserved) == 5, "private VLAN entry layout");

// ---- mirror sessions ---------------------------------------------------------------
// A header, the sessions, then one array of port entries the sessions
// share: each session owns a consecutive run of it (its destinations, then
// its receive sources, then its transmit sources).
constexpr uint32_t kMirrorTableMagic = 0xFACEBEEF;
constexpr uint32_t kMirrorTableVersion = 1;
// The packet length of a session that mirrors whole packets.
constexpr uint32_t kMirrorPacketLengthNotSet = 0xFFFFFFFF;
constexpr uint32_t kMirrorSessionKeySlot = 32;
constexpr uint32_t kMirrorSessionNameSlot = 81;

// Session types, positions in SESSION_TYPE_LOCAL_ENUM_2_SCHEMA.
constexpr uint32_t kMirrorMixedDest = 0;
constexpr uint32_t kMirrorRemoteSource = 2;
constexpr uint32_t kMirrorRemoteDest = 3;
constexpr uint32_t kMirrorEncapRemoteSource = 4;

// A port entry: a kind word, then a payload (a NUL-terminated port key or
// uplink name, a uint16 VLAN id, or an address-family byte, 1 for IPv6,
// and the address at kMirrorEntryAddressAt).  Its width depends on the
// switch version.
constexpr uint32_t kMirrorPortKindKey = 0;
constexpr uint32_t kMirrorPortKindUplink = 1;
constexpr uint32_t kMirrorEntryPayloadAt = 4;
constexpr uint32_t kMirrorEntryAddressAt = 8;
constexpr uint32_t kMirrorEntrySizeClassic = 36;
constexpr uint32_t kMirrorEntrySizeWide = 52;
constexpr uint32_t kMirrorWideEntryFromVersion = 100;

constexpr uint32_t MirrorPortEntrySize(uint32_t switchVersion) {
   return switchVersion >= kMirrorWideEntryFromVersion ? kMirrorEntrySizeWide
                                                       : kMirrorEntrySizeClassic;
}

#pragma pack(push, 1)
struct MirrorTableHeader {
   uint32_t magic;
   uint32_t version;
   uint32_t numSessions;
   uint32_t numPorts;
   uint32_t reserved;
};

struct MirrorSession {
   char key[kMirrorSessionKeySlot];
   char name[kMirrorSessionNameSlot];
   uint8_t reserved1[3];
   uint32_t sessionType;
   uint32_t mirroredPacketLength;
   uint32_t sessionFlags;
   uint16_t encapsulationVlanId;
   uint16_t recvWildcardTypes;
   uint16_t transmitWildcardTypes;
   uint8_t reserved2[2];
   uint32_t samplingRate;
   uint32_t encapType;
   uint16_t erspanId;
   uint8_t erspanCos;
   uint8_t erspanGraNanosec;
   uint8_t reserved3[68];
   uint32_t numDestPorts;
   uint32_t numRecvPorts;
   uint32_t numTransmitPorts;
   uint32_t firstPortIndex;
};
#pragma pack(pop)
static_assert(sizeof(MirrorTableHeader) == 20, "mirror table header size");
static_assert(offsetof(MirrorTableHeader, numSessions) == 8, "mirror table header layout");
static_assert(offsetof(MirrorTableHeader, reserved) == 16, "mirror table header layout");
static_assert(sizeof(MirrorSession) == 232, "mirror session size");
static_assert(offsetof(MirrorSession, name) == 32, "mirror session layout");
static_assert(offsetof(MirrorSession, reserved1) == 113, "mirror session layout");
static_assert(offsetof(MirrorSession, sessionType) == 116, "mirror session layout");
static_assert(offsetof(MirrorSession, mirroredPacketLength) == 120, "mirror session layout");
static_assert(offsetof(MirrorSession, sessionFlags) == 124, "mirror session layout");
static_assert(offsetof(MirrorSession, encapsulationVlanId) == 128, "mirror session layout");
static_assert(offsetof(MirrorSession, recvWildcardTypes) == 130, "mirror session layout");
static_assert(offsetof(MirrorSession, transmitWildcardTypes) == 132, "mirror session layout");
static_assert(offsetof(MirrorSession, reserved2) == 134, "mirror session layout");
static_assert(offsetof(MirrorSession, samplingRate) == 136, "mirror session layout");
static_assert(offsetof(MirrorSession, encapType) == 140, "mirror session layout");
static_assert(offsetof(MirrorSession, erspanId) == 144, "mirror session layout");
static_assert(offsetof(MirrorSession, erspanCos) == 146, "mirror session layout");
static_assert(offsetof(MirrorSession, erspanGraNanosec) == 147, "mirror session layout");
static_assert(offsetof(MirrorSession, reserved3) == 148, "mirror session layout");
static_assert(offsetof(MirrorSession, numDestPorts) == 216, "mirror session layout");
static_assert(offsetof(MirrorSession, numRecvPorts) == 220, "mirror session layout");
static_assert(offsetof(MirrorSession, numTransmitPorts) == 224, "mirror session layout");
static_assert(offsetof(MirrorSession, firstPortIndex) == 228, "mirror session layout");

// ---- monitoring -------------------------------------------------------------------
#pragma pack(push, 1)
struct IpfixConfig {
   uint32_t idleFlowTimeout;
   uint32_t activeFlowTimeout;
   uint8_t collectorAddress[16];  // IPv4 in the first 4 bytes, or IPv6
   uint16_t collectorPort;
   uint32_t samplingRate;
   uint8_t internalFlowsOnly;
   uint8_t collectorIsIpv6;
   uint32_t observationDomainId;
};

struct LinkDiscoveryConfig {
   uint8_t protocol;   // index into CDP_MODE_2_CHARS
   uint8_t operation;  // index into CDP_OPERATION_2_CHARS
};

struct HealthCheckDeploy {
   uint8_t enable;
   uint32_t interval;
};
#pragma pack(pop)
static_assert(sizeof(IpfixConfig) == 36, "IPFIX config size");
static_assert(offsetof(IpfixConfig, collectorAddress) == 8, "IPFIX config layout");
static_assert(offsetof(IpfixConfig, collectorPort) == 24, "IPFIX config layout");
static_assert(offsetof(IpfixConfig, samplingRate) == 26, "IPFIX config layout");
static_assert(offsetof(IpfixConfig, internalFlowsOnly) == 30, "IPFIX config layout");
static_assert(offsetof(IpfixConfig, collectorIsIpv6) == 31, "IPFIX config layout");
static_assert(offsetof(IpfixConfig, observationDomainId) == 32, "IPFIX config layout");
static_assert(sizeof(LinkDiscoveryConfig) == 2, "link discovery size");
static_assert(sizeof(HealthCheckDeploy) == 5, "health check size");
static_assert(offsetof(HealthCheckDeploy, interval) == 1, "health check layout");

// ---- port policies ------------------------------------------------------------------
#pragma pack(push, 1)
// Followed by rangeCount VlanRange records.
struct PortVlanPolicy {
   uint16_t flags;
   uint16_t vlanId;  // VLAN or private VLAN id; unused for a trunk
   uint16_t reserved;
   uint16_t rangeCount;
};

struct VlanRange {
   uint16_t start;
   uint16_t end;
};

struct PortShapingPolicy {
   uint64_t averageBandwidth;
   uint64_t peakBandwidth;
   uint64_t burstSize;
};

// The MAC management policy: one bit per thing the port refuses.
struct PortSecurityPolicy {
   uint32_t rejectBits;
};
#pragma pack(pop)
static_assert(sizeof(PortVlanPolicy) == 8, "port VLAN policy size");
static_assert(offsetof(PortVlanPolicy, vlanId) == 2, "port VLAN policy layout");
static_assert(offsetof(PortVlanPolicy, reserved) == 4, "port VLAN policy layout");
static_assert(offsetof(PortVlanPolicy, rangeCount) == 6, "port VLAN policy layout");
static_assert(sizeof(VlanRange) == 4, "VLAN range size");
static_assert(offsetof(VlanRange, end) == 2, "VLAN range layout");
static_assert(sizeof(PortShapingPolicy) == 24, "port shaping size");
static_assert(offsetof(PortShapingPolicy, peakBandwidth) == 8, "port shaping layout");
static_assert(offsetof(PortShapingPolicy, burstSize) == 16, "port shaping layout");
static_assert(sizeof(PortSecurityPolicy) == 4, "port security size");

}  // namespace dvs::layouts

#endif  // DVS_CONFIGSTORE_PROPERTY_LAYOUTS_H

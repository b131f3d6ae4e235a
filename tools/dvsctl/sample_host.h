// sample_host.h -- a realistic host's switch state, built in-process.
//
// The host has switches of the classes "etherswitch", "vswitch",
// "cswitch" and "zltvswitch" (cycled, with versions the kernel runs; the
// zlt ones of versions 100 and 107 and up carry
// "com.ostrel.common.portset.zlt" = "true") and its ports spread over
// them.  Each switch carries its version property, an alias (all but the
// cswitch ones), mtu, uplink names, LACP groups, a private VLAN map, mirror
// sessions, IPFIX, link discovery, both health checks, resource pools and
// a few properties the store mapping has no row for; its host list the
// port-set name and the uplink port keys.  The first four ports of a switch
// are its uplinks (resource pools, LACP policy); the others are VM ports
// with teaming, VLAN (plain, private, trunk), shaping, security and some
// with mirror sessions and a network filter.  Structured values are made
// through the property codecs; the names follow the switch's class
// family the way the kernel keeps them.
#ifndef DVSCTL_SAMPLE_HOST_H
#define DVSCTL_SAMPLE_HOST_H

#include <cstdint>

#include "io.h"

namespace dvsctl {

struct SampleHostOptions {
   uint32_t switches = 5;  // 1 to 32
   uint32_t ports = 300;   // in total, 0 to kMaxSamplePorts
   uint32_t seed = 1;      // the same seed gives the same host
};

constexpr uint32_t kMaxSamplePorts = 4096;

// Builds the host in the process-wide switch registry, returns its host
// configuration blob and empties the registry again.  Options out of range
// and library failures throw dvsctl::Error.  The registry must not hold
// switches of the same ids.
Bytes BuildSampleHost(const SampleHostOptions &options);

}  // namespace dvsctl

#endif  // DVSCTL_SAMPLE_HOST_H

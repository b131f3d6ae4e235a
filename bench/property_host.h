// The host the performance targets are set for: switches whose ports each
// carry an alias, a VLAN and further properties of 48 bytes (20 properties
// a port in the target rows), built in the switch registry.  Each switch has
// its version, so that the host also goes through the configuration store
// and back.  The names of the further properties have no row of their own
// in the store's tables: the store keeps them as opaque data.
#ifndef DVS_BENCH_PROPERTY_HOST_H
#define DVS_BENCH_PROPERTY_HOST_H

#include <dvsdata.h>
#include <dvsstate.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace dvsbench {

// Adds the switches to the registry; false when a step fails.
inline bool BuildPropertyHost(int switches, int portsPerSwitch, int props) {
   const std::string filler(48, 'f');
   const uint32_t version = 100;
   for (int s = 0; s < switches; ++s) {
      const std::string sw = "limit-sw" + std::to_string(s);
      if (DVSState_SwitchAdd(sw.c_str(), "etherswitch", 0, version) != STATUS_OK ||
          DVSState_GlobalPropSet(sw.c_str(), "com.ostrel.common.version", &version,
                                 sizeof version, 0x20) != STATUS_OK ||
          DVSState_GlobalPropSet(sw.c_str(), "com.ostrel.common.alias", sw.c_str(),
                                 static_cast<uint32_t>(sw.size() + 1), 0x20) != STATUS_OK) {
         return false;
      }
      for (int p = 0; p < portsPerSwitch; ++p) {
         DVSDataHandle data = nullptr;
         if (DVSData_Alloc(&data, malloc, free) != STATUS_OK) {
            return false;
         }
         const std::string alias = "vm-port-" + std::to_string(p);
         const uint32_t vlan = static_cast<uint32_t>(p);
         bool ok = DVSData_Append(data, "com.ostrel.common.port.alias", alias.c_str(),
                                  static_cast<uint32_t>(alias.size() + 1), 0x20) == STATUS_OK &&
                   DVSData_Append(data, "com.ostrel.etherswitch.vlan", &vlan, sizeof vlan,
                                  0x20) == STATUS_OK;
         for (int k = 2; ok && k < props; ++k) {
            const std::string name = "com.ostrel.bench.port.prop" + std::to_string(k);
            ok = DVSData_Append(data, name.c_str(), filler.data(),
                                static_cast<uint32_t>(filler.size()), 0x20) == STATUS_OK;
         }
         if (!ok || DVSState_PortAdd(sw.c_str(), std::to_string(p).c_str(), data) != STATUS_OK) {
            DVSData_Free(data);
            return false;
         }
      }
   }
   return true;
}

}  // namespace dvsbench

#endif  // DVS_BENCH_PROPERTY_HOST_H

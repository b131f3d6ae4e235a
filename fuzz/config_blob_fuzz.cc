// Host, switch and port blob readers into the switch registry.
//
// Input: control(1) blob...
//   bits 0-1  0, 3: DVSState_ConfigDeserialize (host blob)
//             1:    DVSState_SwitchDeserialize under id "fz" (or the null
//                   id when bit 4 is set), onto a registry that holds "fz"
//                   already when bit 5 is set
//             2:    DVSState_PortDeserialize onto switch "fz", port "p0"
//   bit 2     repair the checksums of the blob and of its nested blobs
// Whatever was registered is written as a host blob, the registry is
// reset, and that blob is read back.  The writer does not record a port's
// type (only a port whose data carries the type property keeps it), so
// when every port is active the blob must read back, into a registry that
// writes the same bytes again.
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_support.h"

namespace {

std::string SerializeRegistry() {
   void *blob = nullptr;
   uint32_t len = 0;
   FUZZ_CHECK(DVSState_ConfigSerialize(&blob, &len) == STATUS_OK);
   std::string bytes(static_cast<char *>(blob), len);
   free(blob);
   return bytes;
}

bool CountInactive(DVSPort *port, void *ctx) {
   if (port->portType != DVS_PORT_ACTIVE) {
      ++*static_cast<int *>(ctx);
   }
   return false;
}

bool CountSwitchInactive(DVSwitch *dvs, void *ctx) {
   DVSState_PortForEach(dvs, CountInactive, ctx);
   return false;
}

bool AllPortsActive() {
   int inactive = 0;
   DVSState_SwitchForEach(CountSwitchInactive, &inactive);
   return inactive == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
   dvsfuzz::Quiet();
   // Small switch records, and a host-wide port limit inputs can reach.
   uwMaxNumActivePortsSystemWide = 64;
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size == 0 || size > (1u << 20)) {
      return 0;
   }
   const uint8_t control = data[0];
   std::string blob(reinterpret_cast<const char *>(data + 1), size - 1);
   if ((control & 4) != 0) {
      dvsfuzz::RepairNested(reinterpret_cast<uint8_t *>(blob.data()), blob.size());
   }
   const auto len = static_cast<uint32_t>(blob.size());

   const uint32_t mode = control & 3;
   if (mode == 2 || (mode == 1 && (control & 0x20) != 0)) {
      FUZZ_CHECK(DVSState_SwitchAdd("fz", "etherswitch", 8, 100) == STATUS_OK);
   }
   switch (mode) {
      case 1:
         (void)DVSState_SwitchDeserialize((control & 0x10) != 0 ? nullptr : "fz", blob.data(), len);
         break;
      case 2:
         (void)DVSState_PortDeserialize("fz", "p0", blob.data(), len);
         break;
      default:
         (void)DVSState_ConfigDeserialize(blob.data(), len);
         break;
   }

   const bool allActive = AllPortsActive();
   const std::string written = SerializeRegistry();
   FUZZ_CHECK(DVSState_ConfigReset() == STATUS_OK);
   const ReturnStatus reread =
      DVSState_ConfigDeserialize(written.data(), static_cast<uint32_t>(written.size()));
   if (allActive) {
      FUZZ_CHECK(reread == STATUS_OK);
      FUZZ_CHECK(SerializeRegistry() == written);
   }
   FUZZ_CHECK(DVSState_ConfigReset() == STATUS_OK);
   return 0;
}

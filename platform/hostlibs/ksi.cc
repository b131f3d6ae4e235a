/*
 * ksi.cc -- system information nodes.
 *
 * The only node is the host-wide limit of active ports.  On Linux there is
 * no kernel to ask, so the value comes from an environment variable, read
 * afresh on every call; callers cache it themselves.
 */
#include "hostlibs.h"

#include <cstdlib>
#include <cstring>

/* External linkage and default visibility come from the header's
 * declaration; GCC ignores a visibility attribute repeated here. */
extern "C" const uint16_t KSI_NODE_net_maxPortsSystemWide = 0x0101;

namespace {

constexpr uint32_t kMaxPortsLimit = 65536;

/*
 * Strict decimal: digits only, no sign, no blanks, no base prefix, nothing
 * trailing.  strtoul would accept " 7", "+7" and "-5", so it is not used.
 */
bool ParsePortLimit(const char *text, uint32_t *value) {
   if (*text == '\0') {
      return false;
   }
   uint32_t result = 0;
   for (const char *p = text; *p != '\0'; p++) {
      if (*p < '0' || *p > '9') {
         return false;
      }
      result = result * 10 + static_cast<uint32_t>(*p - '0');
      if (result > kMaxPortsLimit) {
         return false; /* stop before the accumulator can wrap */
      }
   }
   if (result < 1) {
      return false;
   }
   *value = result;
   return true;
}

ReturnStatus ReadMaxPorts(uint32_t *value) {
   const char *env = std::getenv(KSI_MAX_PORTS_ENV);
   if (env == nullptr) {
      *value = KSI_MAX_PORTS_DEFAULT;
      return STATUS_OK;
   }
   if (!ParsePortLimit(env, value)) {
      Log(LOG_LEVEL_WARNING, "%s=\"%s\" is not a port count between 1 and %u", KSI_MAX_PORTS_ENV,
          env, kMaxPortsLimit);
      return STATUS_BAD_PARAM;
   }
   return STATUS_OK;
}

}  // namespace

extern "C" {

HOSTLIBS_EXPORT ReturnStatus KSI_CheckSig(const char *caller, uint32_t version) {
   if (caller == nullptr) {
      return STATUS_BAD_PARAM;
   }
   if (version != KSI_SIGNATURE_VERSION) {
      Log(LOG_LEVEL_ERROR, "%s: system information interface version %u, expected %u", caller,
          version, static_cast<unsigned>(KSI_SIGNATURE_VERSION));
      return STATUS_NOT_SUPPORTED;
   }
   return STATUS_OK;
}

HOSTLIBS_EXPORT ReturnStatus KSI_Get(uint16_t node, uint32_t instance, void *buf, uint32_t len) {
   if (node != KSI_NODE_net_maxPortsSystemWide || instance != 0) {
      return STATUS_NOT_FOUND;
   }
   uint32_t value = 0;
   if (buf == nullptr || len != sizeof value) {
      return STATUS_BAD_PARAM;
   }
   ReturnStatus status = ReadMaxPorts(&value);
   if (status == STATUS_OK) {
      std::memcpy(buf, &value, sizeof value);
   }
   return status;
}

}  // extern "C"

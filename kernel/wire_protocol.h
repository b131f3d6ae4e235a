// The socket transport between the library and the kernel switch simulator.
//
// On a host the library drives the switch character device with ioctl(2).
// A development host has no such device; when the device path names a
// Unix-domain socket the library sends each ioctl to the simulator over a
// stream connection instead, with the same command record and the same
// data buffers, so that everything above the transport is one code path.
//
// One exchange per ioctl, all integers in native byte order:
//
//   request:  WireRequest   {magic, code, inLen}
//             the 424-byte command record as the caller filled it
//             inLen bytes of input: for the data-input commands the
//             dataLen bytes at dataAddr; for command execution the cmdInLen
//             bytes at cmdInAddr; otherwise none
//   response: WireResponse  {magic, result, outLen}
//             the 424-byte command record as the kernel side left it
//             outLen bytes of output, never more than the capacity offered
//             (dataLen for result commands, cmdOutLen for execution);
//             copied to dataAddr or cmdOutAddr
//
// result is 0 when the ioctl succeeds, otherwise a positive errno value the
// ioctl fails with.  The client takes back only the record's status,
// dataLen and cmdOutLen; the addresses in the record are the client's own
// and mean nothing to the simulator.
#ifndef DVS_KERNEL_WIRE_PROTOCOL_H
#define DVS_KERNEL_WIRE_PROTOCOL_H

#include <dvshyp.h>

#include <cstddef>
#include <cstdint>

namespace dvs::wire {

constexpr uint32_t kRequestMagic = 0x4b535644;   // "DVSK"
constexpr uint32_t kResponseMagic = 0x52535644;  // "DVSR"

// Largest input or output one exchange may carry; anything larger is a
// malformed message.
constexpr uint32_t kMaxPayload = 64u << 20;

struct WireRequest {
   uint32_t magic;
   uint32_t code;
   uint32_t inLen;
};

struct WireResponse {
   uint32_t magic;
   uint32_t result;
   uint32_t outLen;
};

static_assert(sizeof(WireRequest) == 12 && sizeof(WireResponse) == 12);
static_assert(sizeof(DVSHYPCmd) == DVSHYP_CMD_RECORD_SIZE);

// Commands whose dataLen bytes at dataAddr are input.
constexpr bool SendsData(uint32_t code) {
   return code == DVSHYP_CMD_STATE_INIT || code == DVSHYP_CMD_GLOBAL_PROP_SET ||
          code == DVSHYP_CMD_HOST_PROP_SET || code == DVSHYP_CMD_PORT_ADD ||
          code == DVSHYP_CMD_PORT_DATA_SET || code == DVSHYP_CMD_UPLINK_DATA_SET;
}

// Commands that return a result in the buffer at dataAddr.
constexpr bool ReceivesData(uint32_t code) {
   return code == DVSHYP_CMD_STATE_GET || code == DVSHYP_CMD_GLOBAL_PROP_GET ||
          code == DVSHYP_CMD_HOST_PROP_GET || code == DVSHYP_CMD_PORT_DATA_GET ||
          code == DVSHYP_CMD_PORT_STATE_GET || code == DVSHYP_CMD_UPLINK_DATA_GET;
}

constexpr bool IsExec(uint32_t code) { return code == DVSHYP_CMD_EXEC; }

}  // namespace dvs::wire

#endif  // DVS_KERNEL_WIRE_PROTOCOL_H

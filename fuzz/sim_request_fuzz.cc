// The kernel switch simulator's command handling, in process and without
// sockets: a sequence of command records and inputs (the request encoding
// of fuzz_support.h) run against one fresh Simulator.  Every answer must
// keep the device contract: the ioctl fails exactly when the status is not
// STATUS_OK, and no result is larger than the capacity offered.  At the
// end the state must survive a StateGet / StateInit round trip.
#include <string>

#include "fuzz/fuzz_support.h"
#include "kernel/wire_protocol.h"
#include "sim/simulator.h"

namespace {

void PutText(char *field, size_t width, std::string_view text) {
   const size_t n = text.size() < width - 1 ? text.size() : width - 1;
   std::memcpy(field, text.data(), n);
}

// The state as StateGet hands it out; false when the get fails.
bool GetState(dvs::sim::Simulator &sim, std::string *blob) {
   DVSHYPCmd rec{};
   rec.dataLen = dvs::wire::kMaxPayload;
   dvs::sim::Reply reply = sim.Execute(DVSHYP_CMD_STATE_GET, rec, "");
   *blob = std::move(reply.output);
   return reply.record.status == STATUS_OK;
}

ReturnStatus InitState(dvs::sim::Simulator &sim, const std::string &blob) {
   DVSHYPCmd rec{};
   rec.dataLen = static_cast<uint32_t>(blob.size());
   return sim.Execute(DVSHYP_CMD_STATE_INIT, rec, blob).record.status;
}

// A state the simulator hands out it must take back; once taken back,
// handing it out again gives the same bytes.
void CheckStateRoundTrip(dvs::sim::Simulator &sim) {
   sim.ClearFaults();
   std::string first;
   if (!GetState(sim, &first)) {
      return;
   }
   dvs::sim::Simulator other;
   FUZZ_CHECK(InitState(other, first) == STATUS_OK);
   std::string second, third;
   FUZZ_CHECK(GetState(other, &second));
   FUZZ_CHECK(InitState(other, second) == STATUS_OK);
   FUZZ_CHECK(GetState(other, &third) && third == second);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
   dvsfuzz::Quiet();
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size > (1u << 18)) {
      return 0;
   }
   dvs::sim::Simulator sim;
   dvsfuzz::Input in(data, size);
   for (int requests = 0; requests < 64 && in.Left() >= 2; ++requests) {
      const uint8_t code = in.Byte();
      const uint8_t form = in.Byte();
      DVSHYPCmd rec{};
      if ((form & dvsfuzz::kFormRawRecord) != 0) {
         const std::string_view raw = in.Take(sizeof rec);
         std::memcpy(&rec, raw.data(), raw.size());
      } else {
         const char sw[] = {'s', 'w', static_cast<char>('0' + (form & 3)), '\0'};
         const char port[] = {'p', static_cast<char>('0' + ((form >> 2) & 3)), '\0'};
         PutText(rec.switchName, sizeof rec.switchName, sw);
         PutText(rec.portId, sizeof rec.portId, port);
         PutText(rec.name, sizeof rec.name, in.Short());
         rec.maxPorts = in.U32();
         rec.version = in.U32();
         rec.flag = in.U32();
         const uint32_t capacity = in.U32();
         rec.dataLen = capacity;
         rec.cmdOutLen = capacity;
         PutText(rec.cmdText, sizeof rec.cmdText, in.Short());
      }
      std::string input((form & dvsfuzz::kFormLongInput) != 0 ? in.Take(in.U16()) : in.Short());
      if (code == DVSHYP_CMD_STATE_INIT || code == DVSHYP_CMD_PORT_ADD) {
         dvsfuzz::RepairNested(reinterpret_cast<uint8_t *>(input.data()), input.size());
      }
      if ((form & dvsfuzz::kFormKeepLength) == 0) {
         if (dvs::wire::SendsData(code)) {
            rec.dataLen = static_cast<uint32_t>(input.size());
         } else if (dvs::wire::IsExec(code)) {
            rec.cmdInLen = static_cast<uint32_t>(input.size());
         }
      }

      const uint32_t offered = dvs::wire::IsExec(code) ? rec.cmdOutLen : rec.dataLen;
      const dvs::sim::Reply reply = sim.Execute(code, rec, input);
      if (reply.drop) {
         continue;
      }
      FUZZ_CHECK((reply.result == 0) == (reply.record.status == STATUS_OK));
      FUZZ_CHECK(reply.output.size() <= offered);
      FUZZ_CHECK(reply.output.empty() || reply.record.status == STATUS_OK);
   }
   CheckStateRoundTrip(sim);
   return 0;
}

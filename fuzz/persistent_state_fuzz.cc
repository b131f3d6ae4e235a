// The persistent state retrieval (DVSHYP_PersistentStateGetWithFile,
// DVSHYP_PersistentStateGet), where a state file is consumed: the kernel's
// state and the state file both come from the input.  The kernel is a
// simulator served in this process on a scratch Unix socket.
//
// Input: control(1) kernelLength(2) kernel-blob file...
//   bit 0  repair the checksums of both blobs (nested ones included)
//   bit 1  pad the file with zeros to whole sectors
//   bit 2  no state file: DVSHYP_PersistentStateGet
// The result is a host blob written by the registry writer that keeps only
// active ports, so it must read back into the registry.
#include <dvsfile.h>
#include <dvshyp.h>
#include <fcntl.h>

#include <cstdlib>
#include <string>

#include "fuzz/fuzz_support.h"
#include "sim/server.h"
#include "sim/simulator.h"

namespace {

dvs::sim::Server *gServer = nullptr;

std::string ScratchFile(const char *name) {
   return dvsfuzz::ScratchDir() + "/" + name;
}

void StopServer() {
   gServer->Stop();
   dvsfuzz::RemoveScratch({"dvsdata.db", "dvsdev.sock"});
}

void WriteWhole(const std::string &path, std::string_view bytes) {
   const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
   FUZZ_CHECK(fd >= 0);
   FUZZ_CHECK(write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
   close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
   dvsfuzz::Quiet();
   uwMaxNumActivePortsSystemWide = 64;
   static dvs::sim::Simulator simulator;
   gServer = new dvs::sim::Server(simulator);
   std::string error;
   const std::string socket = ScratchFile("dvsdev.sock");
   if (!gServer->Start(socket, &error)) {
      std::fprintf(stderr, "simulator: %s\n", error.c_str());
      std::abort();
   }
   setenv(DVSHYP_DEVICE_PATH_ENV, socket.c_str(), 1);
   std::atexit(StopServer);
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size > (1u << 18)) {
      return 0;
   }
   dvsfuzz::Input in(data, size);
   const uint8_t control = in.Byte();
   std::string kernel(in.Take(in.U16()));
   std::string file(in.Rest());
   if ((control & 2) != 0) {
      file.resize((file.size() + DVSFILE_SECTOR_SIZE - 1) / DVSFILE_SECTOR_SIZE *
                  DVSFILE_SECTOR_SIZE);
   }
   if ((control & 1) != 0) {
      dvsfuzz::RepairNested(reinterpret_cast<uint8_t *>(kernel.data()), kernel.size());
      dvsfuzz::RepairNested(reinterpret_cast<uint8_t *>(file.data()), file.size());
   }

   FUZZ_CHECK(DVSHYP_StateCleanup() == STATUS_OK);
   (void)DVSHYP_StateInit(kernel.data(), static_cast<uint32_t>(kernel.size()));
   const std::string path = ScratchFile("dvsdata.db");
   WriteWhole(path, file);

   void *blob = nullptr;
   uint32_t len = 0;
   const ReturnStatus status = (control & 4) != 0
                                  ? DVSHYP_PersistentStateGet(&blob, &len)
                                  : DVSHYP_PersistentStateGetWithFile(&blob, &len, path.c_str());
   if (status == STATUS_OK) {
      FUZZ_CHECK(DVSState_ConfigDeserialize(blob, len) == STATUS_OK);
      FUZZ_CHECK(DVSState_ConfigReset() == STATUS_OK);
      free(blob);
   }
   return 0;
}

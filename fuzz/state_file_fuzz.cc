// The state file reader (DVSFile_Read, DVSFile_ReadClassical) on a file of
// arbitrary contents, then what it read as a host blob.
//
// Input: control(1) contents...
//   bit 0  read with DVSFile_ReadClassical instead of DVSFile_Read
//   bit 1  pad the contents with zeros to whole sectors
//   bit 2  repair the checksums of the contents as a (nested) blob
//   bit 3  also write the contents with DVSFile_Write and read them back
// A read that succeeds must hand out the whole file, sector aligned, in a
// block released at (buffer - offset).
#include <fcntl.h>

#include <cstdlib>
#include <string>

#include <dvsfile.h>

#include "fuzz/fuzz_support.h"

namespace {

const std::string &FilePath() {
   static const std::string &path = *new std::string(dvsfuzz::ScratchDir() + "/dvsdata.db");
   return path;
}

void Cleanup() {
   dvsfuzz::RemoveScratch({"dvsdata.db", "dvsdata.db.tmp"});
}

bool WriteWhole(const std::string &path, const std::string &bytes) {
   const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
   if (fd < 0) {
      return false;
   }
   const ssize_t n = write(fd, bytes.data(), bytes.size());
   close(fd);
   return n == static_cast<ssize_t>(bytes.size());
}

// Reads the file; on success checks the buffer and returns its bytes.
ReturnStatus ReadBack(bool classical, std::string *bytes) {
   void *buf = nullptr;
   uint32_t len = 0, offset = 0;
   const ReturnStatus status = classical
                                  ? DVSFile_ReadClassical(FilePath().c_str(), &buf, &len, &offset)
                                  : DVSFile_Read(FilePath().c_str(), &buf, &len, &offset);
   if (status != STATUS_OK) {
      return status;
   }
   FUZZ_CHECK(buf != nullptr && reinterpret_cast<uintptr_t>(buf) % DVSFILE_SECTOR_SIZE == 0);
   FUZZ_CHECK(offset < DVSFILE_SECTOR_SIZE && len % DVSFILE_SECTOR_SIZE == 0 && len > 0);
   bytes->assign(static_cast<char *>(buf), len);
   free(static_cast<char *>(buf) - offset);
   return STATUS_OK;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
   dvsfuzz::Quiet();
   uwMaxNumActivePortsSystemWide = 64;
   std::atexit(Cleanup);
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size == 0 || size > (1u << 20)) {
      return 0;
   }
   const uint8_t control = data[0];
   const bool classical = (control & 1) != 0;
   std::string contents(reinterpret_cast<const char *>(data + 1), size - 1);
   if ((control & 2) != 0) {
      contents.resize((contents.size() + DVSFILE_SECTOR_SIZE - 1) / DVSFILE_SECTOR_SIZE *
                      DVSFILE_SECTOR_SIZE);
   }
   if ((control & 4) != 0) {
      dvsfuzz::RepairNested(reinterpret_cast<uint8_t *>(contents.data()), contents.size());
   }
   FUZZ_CHECK(WriteWhole(FilePath(), contents));

   std::string read;
   const ReturnStatus status = ReadBack(classical, &read);
   if (contents.empty()) {
      FUZZ_CHECK(status == STATUS_EMPTY);
   } else if (contents.size() % DVSFILE_SECTOR_SIZE != 0) {
      FUZZ_CHECK(status == STATUS_IO_ERROR);
   } else {
      FUZZ_CHECK(status == STATUS_OK && read == contents);
      // What a host does with the file: load it into the registry.
      (void)DVSState_ConfigDeserialize(read.data(), static_cast<uint32_t>(read.size()));
      FUZZ_CHECK(DVSState_ConfigReset() == STATUS_OK);
   }

   if ((control & 8) != 0 && !contents.empty()) {
      FUZZ_CHECK(DVSFile_Write(FilePath().c_str(), contents.data(),
                               static_cast<uint32_t>(contents.size())) == STATUS_OK);
      FUZZ_CHECK(ReadBack(classical, &read) == STATUS_OK);
      FUZZ_CHECK(read.size() % DVSFILE_SECTOR_SIZE == 0 && read.size() - contents.size() < 512);
      FUZZ_CHECK(read.compare(0, contents.size(), contents) == 0);
   }
   return 0;
}

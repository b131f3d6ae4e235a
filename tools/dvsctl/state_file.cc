// state_file.cc -- the persistent state file as dvsctl uses it.
#include "state_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <dvsdata.h>
#include <dvsfile.h>
#include <hostlibs.h>

#include "error.h"
#include "property_list.h"

namespace dvsctl {
namespace {

// The length the blob at the start of `data` gives in its header, bounded
// by `size`; `size` itself when there is no room for a header, so that the
// library refuses the blob rather than this code guessing.
uint32_t BlobLengthWithin(const uint8_t *data, uint32_t size) {
   if (size < DVSDATA_HEADER_SIZE) {
      return size;
   }
   uint32_t length = 0;
   std::memcpy(&length, data, sizeof length);
   return std::min(length, size);
}

}  // namespace

Bytes ReadStateFileBlob(const std::string &path) {
   void *buf = nullptr;
   uint32_t len = 0;
   uint32_t alignOffset = 0;
   const ReturnStatus status = DVSFile_Read(path.c_str(), &buf, &len, &alignOffset);
   if (status == STATUS_NOT_FOUND) {
      // The library answers "not found" for every file it cannot open;
      // the system's own reason says which case this is.
      const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) {
         throw Error("cannot read state file " + path + ": " +
                     DescribeStatus(status, Err_Errno2String(errno)));
      }
      ::close(fd);
   }
   CheckStatus(status, "cannot read state file " + path);
   // The sector-aligned buffer sits `alignOffset` bytes into its block.
   const auto *data = static_cast<const uint8_t *>(buf);
   const Bytes blob(data, data + BlobLengthWithin(data, len));
   std::free(static_cast<uint8_t *>(buf) - alignOffset);
   return blob;
}

uint64_t WriteStateFileBlob(const std::string &path, const Bytes &blob) {
   if (blob.size() > std::numeric_limits<uint32_t>::max()) {
      throw Error("cannot write state file " + path + ": the state is too large");
   }
   const auto len = static_cast<uint32_t>(blob.size());
   CheckStatus(DVSFile_Write(path.c_str(), blob.data(), len), "cannot write state file " + path);
   constexpr uint64_t kSector = DVSFILE_SECTOR_SIZE;
   return (uint64_t{len} + kSector - 1) / kSector * kSector;
}

}  // namespace dvsctl

// The persistent state file: one host configuration blob stored in whole
// 512-byte sectors.  The file is opened for direct (uncached) I/O where the
// file system allows it, so buffers, lengths and offsets are all kept on
// sector boundaries.  The payload length is not recorded: a reader gets
// every sector and the blob carries its own length.
//
// Writers go through "<path>.tmp" and rename it over the path, so a reader
// sees either the old file or the new one, never a mixture.  A failed
// write leaves the temporary file behind as it stands.
#include <dvsfile.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "hostlibs.h"

namespace dvs::statefile {
namespace {

constexpr uint32_t kSectorSize = DVSFILE_SECTOR_SIZE;
constexpr uint32_t kSectorMask = kSectorSize - 1;
static_assert((kSectorSize & kSectorMask) == 0, "the sector size is a power of two");

// Sizes travel as signed 32-bit values: the largest whole number of sectors
// that fits is the largest file read or written.
constexpr uint32_t kMaxFileSize = INT32_MAX & ~kSectorMask;

// Host log level of every message of this family.
constexpr int kLogLevel = 2;

__attribute__((format(printf, 1, 2))) void FileLog(const char *fmt, ...) {
   va_list ap;
   va_start(ap, fmt);
   LogV(kLogLevel, fmt, ap);
   va_end(ap);
}

// A file descriptor, closed when it goes out of scope.
class Descriptor {
  public:
   explicit Descriptor(int fd) : fd_(fd) {}
   Descriptor(const Descriptor &) = delete;
   Descriptor &operator=(const Descriptor &) = delete;
   ~Descriptor() {
      if (fd_ >= 0) {
         ::close(fd_);
      }
   }
   bool IsOpen() const { return fd_ >= 0; }
   int Get() const { return fd_; }

  private:
   int fd_;
};

// A heap block holding `size` bytes that start on a sector boundary.  The
// block is released on destruction unless handed over with Release(); its
// owner then frees (Data() - Offset()).
class AlignedBuffer {
  public:
   AlignedBuffer() = default;
   AlignedBuffer(const AlignedBuffer &) = delete;
   AlignedBuffer &operator=(const AlignedBuffer &) = delete;
   ~AlignedBuffer() { std::free(block_); }

   // `size` is at most kMaxFileSize, so the padding cannot overflow.
   bool Allocate(uint32_t size) {
      block_ = static_cast<uint8_t *>(std::malloc(size_t{size} + kSectorMask));
      if (block_ == nullptr) {
         return false;
      }
      const auto address = reinterpret_cast<uintptr_t>(block_);
      offset_ = static_cast<uint32_t>((kSectorSize - (address & kSectorMask)) & kSectorMask);
      return true;
   }
   uint8_t *Data() const { return block_ + offset_; }
   uint32_t Offset() const { return offset_; }
   void Release() { block_ = nullptr; }

  private:
   uint8_t *block_ = nullptr;
   uint32_t offset_ = 0;
};

struct FreeDeleter {
   void operator()(char *p) const { std::free(p); }
};

// Opens with direct I/O, or without it where the file system refuses it.
// On failure errno is that of the second attempt.
int OpenPreferDirect(const char *path, int flags, mode_t mode) {
   const int fd = ::open(path, flags | O_DIRECT | O_CLOEXEC, mode);
   return fd >= 0 ? fd : ::open(path, flags | O_CLOEXEC, mode);
}

// Some devices accept a direct open but refuse transfers aligned to less
// than their own sector (EINVAL); such a descriptor continues cached.
bool DropDirect(int fd) {
   const int flags = ::fcntl(fd, F_GETFL);
   return flags >= 0 && (flags & O_DIRECT) != 0 && ::fcntl(fd, F_SETFL, flags & ~O_DIRECT) == 0;
}

// Moves `len` bytes between the file, from offset 0, and `buf` through `op`
// (pread or pwrite), continuing after partial transfers so that an error is
// always reported with its own errno.  Returns the number of bytes moved,
// which is less than `len` only at the end of the file, or -1 with errno.
template <class Op>
ssize_t TransferAll(int fd, uint8_t *buf, uint32_t len, Op op) {
   uint32_t done = 0;
   bool cached = false;
   while (done < len) {
      const ssize_t n = op(fd, buf + done, len - done, static_cast<off_t>(done));
      if (n > 0) {
         done += static_cast<uint32_t>(n);
      } else if (n == 0) {
         break;
      } else if (errno == EINTR) {
         continue;
      } else if (errno == EINVAL && !cached && DropDirect(fd)) {
         cached = true;
      } else {
         return -1;
      }
   }
   return static_cast<ssize_t>(done);
}

ReturnStatus ReadStateFile(const char *path, void **buf, uint32_t *len, uint32_t *alignOffset) {
   Descriptor fd(OpenPreferDirect(path, O_RDONLY, 0));
   if (!fd.IsOpen()) {
      FileLog("failed to open dvsfile %s for read, error: %s\n", path, Err_Errno2String(errno));
      return STATUS_NOT_FOUND;
   }

   struct stat st;
   if (::fstat(fd.Get(), &st) != 0 || st.st_size == 0) {
      return STATUS_EMPTY;
   }
   if (st.st_size < 0 || st.st_size % kSectorSize != 0 || st.st_size > off_t{kMaxFileSize}) {
      FileLog("failed to verify dvsfile %s with length %ld\n", path, static_cast<long>(st.st_size));
      return STATUS_IO_ERROR;
   }
   const auto size = static_cast<uint32_t>(st.st_size);

   AlignedBuffer buffer;
   if (!buffer.Allocate(size)) {
      return STATUS_NO_MEMORY;
   }
   if (TransferAll(fd.Get(), buffer.Data(), size, ::pread) != static_cast<ssize_t>(size)) {
      return STATUS_READ_ERROR;
   }

   *buf = buffer.Data();
   *len = size;
   *alignOffset = buffer.Offset();
   buffer.Release();
   return STATUS_OK;
}

ReturnStatus WriteStateFile(const char *path, const void *data, uint32_t len, bool useTmp) {
   std::unique_ptr<char, FreeDeleter> tmpPath;
   if (useTmp) {
      tmpPath.reset(Str_SafeAsprintf(nullptr, "%s.%s", path, "tmp"));
      if (tmpPath == nullptr) {
         return STATUS_NO_MEMORY;
      }
   }
   const char *workPath = useTmp ? tmpPath.get() : path;

   // The buffer comes first: once the file is cut, nothing may fail for
   // want of memory, or a direct write would lose the old state.
   const uint32_t padded = (len + kSectorMask) & ~kSectorMask;
   AlignedBuffer buffer;
   if (!buffer.Allocate(padded)) {
      return STATUS_NO_MEMORY;
   }
   if (len > 0) {
      std::memcpy(buffer.Data(), data, len);
   }
   // Readers ignore the filler; zeros keep stale heap bytes off the disk.
   std::memset(buffer.Data() + len, 0, padded - len);

   // Not truncated on open: the length is set right below.
   Descriptor fd(OpenPreferDirect(workPath, O_WRONLY | O_CREAT, 0600));
   if (!fd.IsOpen()) {
      FileLog("failed to open dvsfile %s for write, error: %s\n", workPath,
              Err_Errno2String(errno));
      return STATUS_IO_ERROR;
   }
   // Cut away what an older, longer file held.  The length is one byte, as
   // this family has always left it; the write below covers that byte again
   // (a payload of 0 bytes writes nothing and leaves the 1-byte file, which
   // readers refuse).
   if (::ftruncate(fd.Get(), 1) != 0) {
      FileLog("failed to truncate dvsfile %s, error: %s\n", workPath, Err_Errno2String(errno));
      return STATUS_IO_ERROR;
   }

   const ssize_t written = TransferAll(fd.Get(), buffer.Data(), padded, ::pwrite);
   if (written != static_cast<ssize_t>(padded)) {
      // A write that moves no bytes without an error leaves errno unset.
      FileLog("failed to write dvsfile %s, error: %s\n", workPath,
              Err_Errno2String(written < 0 ? errno : EIO));
      return STATUS_WRITE_ERROR;
   }

   // Renamed while still open; the descriptor and buffers go afterwards.
   if (useTmp && std::rename(workPath, path) != 0) {
      FileLog("failed to rename dvsfile %s, error: %s\n", workPath, Err_Errno2String(errno));
      return STATUS_WRITE_ERROR;
   }
   return STATUS_OK;
}

}  // namespace
}  // namespace dvs::statefile

using namespace dvs::statefile;

extern "C" {

// On any failure *buf is left NULL: a short read never hands out a pointer
// into a released block.
DVS_EXPORT ReturnStatus DVSFile_ReadClassical(const char *path, void **buf, uint32_t *len,
                                              uint32_t *alignOffset) {
   if (path == nullptr || buf == nullptr || len == nullptr || alignOffset == nullptr) {
      return STATUS_BAD_PARAM;
   }
   *buf = nullptr;
   return ReadStateFile(path, buf, len, alignOffset);
}

DVS_EXPORT ReturnStatus DVSFile_Read(const char *path, void **buf, uint32_t *len,
                                     uint32_t *alignOffset) {
   return DVSFile_ReadClassical(path, buf, len, alignOffset);
}

// A payload of 0 bytes may come with a null pointer.  Payloads whose padded
// size exceeds kMaxFileSize are refused before anything is touched.
DVS_EXPORT ReturnStatus DVSFile_WriteClassical(const char *path, const void *data, uint32_t len,
                                               int32_t useTmp) {
   if (path == nullptr || (data == nullptr && len > 0) || len > kMaxFileSize) {
      return STATUS_BAD_PARAM;
   }
   return WriteStateFile(path, data, len, useTmp != 0);
}

DVS_EXPORT ReturnStatus DVSFile_Write(const char *path, const void *data, uint32_t len) {
   return DVSFile_WriteClassical(path, data, len, 1);
}

}  // extern "C"

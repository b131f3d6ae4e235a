// The device channel: choosing the transport by the device path's type,
// opening it, and issuing one command on it.
#include "kernel/channel.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace dvs::kernel {

const char *DevicePath() {
   // The environment is read on the first call only; initialization of a
   // function-local static is thread-safe.
   static const std::string path = [] {
      const char *env = std::getenv(DVSHYP_DEVICE_PATH_ENV);
      return std::string(env != nullptr && env[0] != '\0' ? env : DVSHYP_DEVICE_PATH);
   }();
   return path.c_str();
}

bool Channel::Open() {
   if (fd_.load(std::memory_order_acquire) >= 0) {
      return true;
   }
   std::lock_guard<std::mutex> lock(mutex_);
   if (fd_.load(std::memory_order_relaxed) >= 0) {
      return true;
   }
   const char *path = DevicePath();
   // A path that is missing or of any other type is opened as the device,
   // so that a missing device fails the way it always has.
   struct stat st;
   const bool isSocket = ::stat(path, &st) == 0 && S_ISSOCK(st.st_mode);
   const int fd = isSocket ? ConnectSimulator(path) : ::open(path, O_RDWR | O_CLOEXEC);
   if (fd < 0) {
      return false;
   }
   isSocket_.store(isSocket, std::memory_order_relaxed);
   fd_.store(fd, std::memory_order_release);
   return true;
}

int Channel::Ioctl(uint32_t code, DVSHYPCmd *rec) {
   const int fd = fd_.load(std::memory_order_acquire);
   if (fd < 0) {
      errno = EBADF;
      return -1;
   }
   if (!isSocket_.load(std::memory_order_relaxed)) {
      return ::ioctl(fd, static_cast<unsigned long>(code), rec);
   }
   std::lock_guard<std::mutex> lock(mutex_);
   return SocketIoctl(fd, code, rec);
}

// One exchange, and for a reconnecting channel one more on a new
// connection when the old one turned out dead.  The caller holds mutex_.
int Channel::SocketIoctl(int fd, uint32_t code, DVSHYPCmd *rec) {
   int result = 0;
   Exchange outcome = ExchangeOnSocket(fd, code, rec, &result);
   if (outcome == Exchange::kPeerGone && reconnect_) {
      const int fresh = ConnectSimulator(DevicePath());
      if (fresh >= 0) {
         // The kept descriptor keeps its number: whoever saw it still holds
         // a valid one.
         const bool moved = ::dup3(fresh, fd, O_CLOEXEC) == fd;
         const int err = errno;
         ::close(fresh);
         if (moved) {
            outcome = ExchangeOnSocket(fd, code, rec, &result);
         } else {
            errno = err;
         }
      }
   }
   if (outcome != Exchange::kAnswered) {
      return -1;
   }
   if (result != 0) {
      errno = result;
      return -1;
   }
   return 0;
}

void Channel::Close() {
   std::lock_guard<std::mutex> lock(mutex_);
   const int fd = fd_.exchange(-1, std::memory_order_acq_rel);
   if (fd >= 0) {
      ::close(fd);
   }
}

}  // namespace dvs::kernel

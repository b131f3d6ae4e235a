// The socket transport: one ioctl as one request/response exchange with the
// kernel switch simulator (kernel/wire_protocol.h,
// docs/kernel-wire-format.md).
//
// The answer is untrusted: its output is read straight into the caller's
// buffer only once its length is known to fit the capacity offered, and the
// record's fields are taken back only from a complete answer.  A stream
// left in the middle of a message is shut down, so that it can never be
// read out of step; the kept channel then reconnects on its next use.
//
// A simulator that stops answering (stopped, wedged, its host suspended)
// must not hang its caller: every exchange runs under one deadline
// (DVS_DEVICE_TIMEOUT_MS, 30 s by default).  The socket is driven without
// blocking and waited on with poll(2) for the time left, so the whole
// exchange, however many partial transfers it takes, ends by then; a late
// exchange fails with ETIMEDOUT and its stream is shut down like any other
// left mid-message.  Connecting is bounded by the same time (a listener
// whose backlog is full blocks connect(2)).
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kernel/channel.h"
#include "kernel/wire_protocol.h"

namespace dvs::kernel {

namespace {

// Largest error number an answer may carry.
constexpr uint32_t kMaxErrno = 4095;

bool IsDeadConnection(int err) {
   return err == EPIPE || err == ECONNRESET || err == ENOTCONN;
}

void *Address(uint64_t addr) {
   return reinterpret_cast<void *>(static_cast<uintptr_t>(addr));
}

constexpr int64_t kDefaultTimeoutMs = 30000;

// DVS_DEVICE_TIMEOUT_MS when it is a positive number of milliseconds,
// otherwise the default; read once per process.
int64_t TimeoutMs() {
   static const int64_t timeout = [] {
      const char *env = std::getenv(DVSHYP_DEVICE_TIMEOUT_ENV);
      char *end = nullptr;
      const long long ms = env != nullptr ? std::strtoll(env, &end, 10) : 0;
      return end != env && end != nullptr && *end == '\0' && ms > 0 ? static_cast<int64_t>(ms)
                                                                    : kDefaultTimeoutMs;
   }();
   return timeout;
}

int64_t NowMs() {
   timespec ts;
   ::clock_gettime(CLOCK_MONOTONIC, &ts);
   return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until `fd` is ready for `events` or `deadline` (NowMs) passes;
// false with errno set (ETIMEDOUT at the deadline).
bool WaitReady(int fd, short events, int64_t deadline) {
   for (;;) {
      const int64_t left = deadline - NowMs();
      if (left <= 0) {
         errno = ETIMEDOUT;
         return false;
      }
      pollfd p{fd, events, 0};
      const int n = ::poll(&p, 1, static_cast<int>(left < INT32_MAX ? left : INT32_MAX));
      if (n > 0) {
         return true;
      }
      if (n < 0 && errno != EINTR) {
         return false;
      }
   }
}

bool WouldBlock(int err) {
   return err == EAGAIN || err == EWOULDBLOCK;
}

// Sends every byte of `iov` by `deadline`; false with errno set.
bool SendAll(int fd, iovec *iov, int count, int64_t deadline) {
   while (count > 0) {
      msghdr msg{};
      msg.msg_iov = iov;
      msg.msg_iovlen = static_cast<size_t>(count);
      const ssize_t n = ::sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0) {
         if (errno == EINTR || (WouldBlock(errno) && WaitReady(fd, POLLOUT, deadline))) {
            continue;
         }
         return false;
      }
      size_t sent = static_cast<size_t>(n);
      while (count > 0 && sent >= iov->iov_len) {
         sent -= iov->iov_len;
         ++iov;
         --count;
      }
      if (count > 0) {
         iov->iov_base = static_cast<char *>(iov->iov_base) + sent;
         iov->iov_len -= sent;
      }
   }
   return true;
}

// Reads up to `len` bytes by `deadline`, stopping early only at the end of
// the stream (*err = 0) or on an error (*err = its number, ETIMEDOUT at the
// deadline).  Returns the bytes read.
size_t RecvAll(int fd, void *buf, size_t len, int *err, int64_t deadline) {
   size_t got = 0;
   *err = 0;
   while (got < len) {
      const ssize_t n = ::recv(fd, static_cast<char *>(buf) + got, len - got, MSG_DONTWAIT);
      if (n > 0) {
         got += static_cast<size_t>(n);
      } else if (n == 0) {
         break;
      } else if (errno != EINTR && !(WouldBlock(errno) && WaitReady(fd, POLLIN, deadline))) {
         *err = errno;
         break;
      }
   }
   return got;
}

Exchange Broken(int fd, int err) {
   ::shutdown(fd, SHUT_RDWR);
   errno = err;
   return Exchange::kFailed;
}

}  // namespace

int ConnectSimulator(const char *path) {
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   const size_t len = std::strlen(path);
   if (len >= sizeof addr.sun_path) {
      errno = ENAMETOOLONG;
      return -1;
   }
   std::memcpy(addr.sun_path, path, len + 1);
   const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (fd < 0) {
      return -1;
   }
   // Bounds a connect that waits for room in the listener's backlog.
   const timeval bound{static_cast<time_t>(TimeoutMs() / 1000),
                       static_cast<suseconds_t>(TimeoutMs() % 1000 * 1000)};
   ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
   while (::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
      if (errno == EINTR) {
         continue;
      }
      if (errno == EISCONN) {  // an interrupted connect completed meanwhile
         break;
      }
      const int err = errno == EAGAIN ? ETIMEDOUT : errno;  // the backlog stayed full
      ::close(fd);
      errno = err;
      return -1;
   }
   return fd;
}

Exchange ExchangeOnSocket(int fd, uint32_t code, DVSHYPCmd *rec, int *result) {
   const void *in = nullptr;
   uint32_t inLen = 0;
   if (wire::SendsData(code)) {
      in = Address(rec->dataAddr);
      inLen = rec->dataLen;
   } else if (wire::IsExec(code)) {
      in = Address(rec->cmdInAddr);
      inLen = rec->cmdInLen;
   }
   if (inLen > wire::kMaxPayload) {
      errno = EMSGSIZE;
      return Exchange::kFailed;
   }
   if (inLen > 0 && in == nullptr) {
      errno = EFAULT;
      return Exchange::kFailed;
   }
   void *out = nullptr;
   uint32_t capacity = 0;
   if (wire::ReceivesData(code)) {
      out = Address(rec->dataAddr);
      capacity = rec->dataLen;
   } else if (wire::IsExec(code)) {
      out = Address(rec->cmdOutAddr);
      capacity = rec->cmdOutLen;
   }
   if (out == nullptr) {
      capacity = 0;
   }

   wire::WireRequest request{wire::kRequestMagic, code, inLen};
   iovec iov[3] = {{&request, sizeof request}, {rec, sizeof *rec}, {const_cast<void *>(in), inLen}};
   const int64_t deadline = NowMs() + TimeoutMs();
   if (!SendAll(fd, iov, 3, deadline)) {
      if (IsDeadConnection(errno)) {
         return Exchange::kPeerGone;
      }
      return Broken(fd, errno);
   }

   int err = 0;
   wire::WireResponse response;
   const size_t got = RecvAll(fd, &response, sizeof response, &err, deadline);
   if (got == 0 && (err == 0 || IsDeadConnection(err))) {
      errno = err != 0 ? err : ECONNRESET;
      return Exchange::kPeerGone;
   }
   if (got < sizeof response) {
      return Broken(fd, err != 0 ? err : EIO);
   }
   if (response.magic != wire::kResponseMagic || response.outLen > capacity ||
       response.outLen > wire::kMaxPayload || response.result > kMaxErrno) {
      return Broken(fd, EPROTO);
   }
   DVSHYPCmd answered;
   if (RecvAll(fd, &answered, sizeof answered, &err, deadline) < sizeof answered) {
      return Broken(fd, err != 0 ? err : EIO);
   }
   if (response.outLen > 0 && RecvAll(fd, out, response.outLen, &err, deadline) < response.outLen) {
      return Broken(fd, err != 0 ? err : EIO);
   }
   rec->status = answered.status;
   rec->dataLen = answered.dataLen;
   rec->cmdOutLen = answered.cmdOutLen;
   *result = static_cast<int>(response.result);
   return Exchange::kAnswered;
}

}  // namespace dvs::kernel

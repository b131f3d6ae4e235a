// The socket transport: one ioctl as one request/response exchange with the
// kernel switch simulator (kernel/wire_protocol.h,
// docs/kernel-wire-format.md).
//
// The answer is untrusted: its output is read straight into the caller's
// buffer only once its length is known to fit the capacity offered, and the
// record's fields are taken back only from a complete answer.  A stream
// left in the middle of a message is shut down, so that it can never be
// read out of step; the kept channel then reconnects on its next use.
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
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

// Sends every byte of `iov`; false with errno set.
bool SendAll(int fd, iovec *iov, int count) {
   while (count > 0) {
      msghdr msg{};
      msg.msg_iov = iov;
      msg.msg_iovlen = static_cast<size_t>(count);
      const ssize_t n = ::sendmsg(fd, &msg, MSG_NOSIGNAL);
      if (n < 0) {
         if (errno == EINTR) {
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

// Reads up to `len` bytes, stopping early only at the end of the stream
// (*err = 0) or on an error (*err = its number).  Returns the bytes read.
size_t RecvAll(int fd, void *buf, size_t len, int *err) {
   size_t got = 0;
   *err = 0;
   while (got < len) {
      const ssize_t n = ::recv(fd, static_cast<char *>(buf) + got, len - got, 0);
      if (n > 0) {
         got += static_cast<size_t>(n);
      } else if (n == 0) {
         break;
      } else if (errno != EINTR) {
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
   while (::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
      if (errno == EINTR) {
         continue;
      }
      if (errno == EISCONN) {  // an interrupted connect completed meanwhile
         break;
      }
      const int err = errno;
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
   if (!SendAll(fd, iov, 3)) {
      if (IsDeadConnection(errno)) {
         return Exchange::kPeerGone;
      }
      return Broken(fd, errno);
   }

   int err = 0;
   wire::WireResponse response;
   const size_t got = RecvAll(fd, &response, sizeof response, &err);
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
   if (RecvAll(fd, &answered, sizeof answered, &err) < sizeof answered) {
      return Broken(fd, err != 0 ? err : EIO);
   }
   if (response.outLen > 0 && RecvAll(fd, out, response.outLen, &err) < response.outLen) {
      return Broken(fd, err != 0 ? err : EIO);
   }
   rec->status = answered.status;
   rec->dataLen = answered.dataLen;
   rec->cmdOutLen = answered.cmdOutLen;
   *result = static_cast<int>(response.result);
   return Exchange::kAnswered;
}

}  // namespace dvs::kernel

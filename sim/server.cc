// The simulator's socket server: a listening socket, a thread per
// connection, and a stop pipe that wakes every thread at once.
#include "sim/server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "kernel/wire_protocol.h"

namespace dvs::sim {
namespace {

// Waits until fd is ready for `events`; false once the stop pipe is
// readable or polling fails.
bool WaitFor(int fd, short events, int stopFd) {
   pollfd fds[2] = {{fd, events, 0}, {stopFd, POLLIN, 0}};
   for (;;) {
      const int n = poll(fds, 2, -1);
      if (n < 0 && errno == EINTR) {
         continue;
      }
      if (n < 0 || fds[1].revents != 0) {
         return false;
      }
      if (fds[0].revents != 0) {
         return true;
      }
   }
}

// Reads exactly len bytes; false on end of stream, error or stop.
bool ReadAll(int fd, int stopFd, void *buf, size_t len) {
   auto *p = static_cast<char *>(buf);
   while (len > 0) {
      if (!WaitFor(fd, POLLIN, stopFd)) {
         return false;
      }
      const ssize_t n = recv(fd, p, len, 0);
      if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
         continue;
      }
      if (n <= 0) {
         return false;
      }
      p += n;
      len -= static_cast<size_t>(n);
   }
   return true;
}

bool WriteAll(int fd, int stopFd, const void *buf, size_t len) {
   const auto *p = static_cast<const char *>(buf);
   while (len > 0) {
      if (!WaitFor(fd, POLLOUT, stopFd)) {
         return false;
      }
      // A client that went away must not raise SIGPIPE in the server.
      const ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
      if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
         continue;
      }
      if (n <= 0) {
         return false;
      }
      p += n;
      len -= static_cast<size_t>(n);
   }
   return true;
}

bool SendResponse(int fd, int stopFd, uint32_t result, const DVSHYPCmd &record,
                  const Bytes &output) {
   const wire::WireResponse header{wire::kResponseMagic, result,
                                   static_cast<uint32_t>(output.size())};
   Bytes message(reinterpret_cast<const char *>(&header), sizeof header);
   message.append(reinterpret_cast<const char *>(&record), sizeof record);
   message += output;
   return WriteAll(fd, stopFd, message.data(), message.size());
}

std::string ErrnoText(const std::string &what) {
   return what + ": " + std::strerror(errno);
}

bool MakeAddress(const std::string &path, sockaddr_un *addr) {
   std::memset(addr, 0, sizeof *addr);
   addr->sun_family = AF_UNIX;
   if (path.empty() || path.size() >= sizeof addr->sun_path) {
      return false;
   }
   path.copy(addr->sun_path, path.size());
   return true;
}

// Whether something accepts connections on the socket file at addr.
bool SomeoneListens(const sockaddr_un &addr) {
   const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (fd < 0) {
      return false;
   }
   const bool live = connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0;
   close(fd);
   return live;
}

}  // namespace

Server::Server(Simulator &simulator) : simulator_(simulator) {}

Server::~Server() {
   Stop();
}

void Server::Log(const std::string &line) const {
   if (logger_) {
      logger_(line);
   }
}

bool Server::Start(const std::string &path, std::string *error) {
   if (listenFd_ >= 0) {
      *error = "already serving " + path_;
      return false;
   }
   sockaddr_un addr;
   if (!MakeAddress(path, &addr)) {
      *error = "socket path is empty or too long: " + path;
      return false;
   }
   struct stat st;
   if (lstat(path.c_str(), &st) == 0) {
      if (!S_ISSOCK(st.st_mode)) {
         *error = path + " exists and is not a socket";
         return false;
      }
      if (SomeoneListens(addr)) {
         *error = path + " is in use by a running server";
         return false;
      }
      // Left behind by a server that did not stop cleanly.
      if (unlink(path.c_str()) != 0) {
         *error = ErrnoText("cannot remove stale socket " + path);
         return false;
      }
   }

   const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (fd < 0) {
      *error = ErrnoText("socket");
      return false;
   }
   if (bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
      *error = ErrnoText("cannot bind " + path);
      close(fd);
      return false;
   }
   if (listen(fd, SOMAXCONN) != 0 || stat(path.c_str(), &st) != 0 ||
       pipe2(stopPipe_, O_CLOEXEC) != 0) {
      *error = ErrnoText("cannot listen on " + path);
      close(fd);
      unlink(path.c_str());
      return false;
   }
   listenFd_ = fd;
   path_ = path;
   socketDev_ = st.st_dev;
   socketIno_ = st.st_ino;
   acceptThread_ = std::thread(&Server::AcceptLoop, this);
   return true;
}

void Server::Stop() {
   if (listenFd_ < 0) {
      return;
   }
   // Never read: once written, the pipe stays readable for every thread.
   const char byte = 0;
   while (write(stopPipe_[1], &byte, 1) < 0 && errno == EINTR) {
   }
   acceptThread_.join();
   Reap(true);

   close(listenFd_);
   listenFd_ = -1;
   struct stat st;
   if (lstat(path_.c_str(), &st) == 0 && static_cast<uint64_t>(st.st_dev) == socketDev_ &&
       static_cast<uint64_t>(st.st_ino) == socketIno_) {
      unlink(path_.c_str());
   }
   for (int &fd : stopPipe_) {
      close(fd);
      fd = -1;
   }
}

void Server::Reap(bool all) {
   std::lock_guard<std::mutex> lock(connectionsMutex_);
   for (auto it = connections_.begin(); it != connections_.end();) {
      if (all || it->done) {
         it->thread.join();
         it = connections_.erase(it);
      } else {
         ++it;
      }
   }
}

void Server::AcceptLoop() {
   for (;;) {
      if (!WaitFor(listenFd_, POLLIN, stopPipe_[0])) {
         return;
      }
      const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) {
         if (errno != EINTR && errno != EAGAIN && errno != ECONNABORTED) {
            // Out of descriptors or memory: give clients time to go away
            // rather than spin.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
         }
         continue;
      }
      Reap(false);
      std::lock_guard<std::mutex> lock(connectionsMutex_);
      Connection &connection = connections_.emplace_back();
      connection.fd = fd;
      connection.thread = std::thread(&Server::Serve, this, &connection);
   }
}

void Server::Serve(Connection *connection) {
   const int fd = connection->fd, stopFd = stopPipe_[0];
   Log("connection " + std::to_string(fd) + " opened");
   for (;;) {
      wire::WireRequest request;
      DVSHYPCmd record;
      if (!ReadAll(fd, stopFd, &request, sizeof request)) {
         break;
      }
      // Without the magic nothing after it can be trusted to frame.
      if (request.magic != wire::kRequestMagic) {
         Log("connection " + std::to_string(fd) + ": bad magic, closing");
         break;
      }
      if (!ReadAll(fd, stopFd, &record, sizeof record)) {
         break;
      }
      if (request.inLen > wire::kMaxPayload) {
         // Refused without reading the input, so the stream cannot go on.
         Log("connection " + std::to_string(fd) + ": input too long, closing");
         record.status = STATUS_BAD_PARAM;
         SendResponse(fd, stopFd, EMSGSIZE, record, Bytes());
         break;
      }
      Bytes input(request.inLen, '\0');
      if (!ReadAll(fd, stopFd, input.data(), input.size())) {
         break;
      }
      const Reply reply = simulator_.Execute(request.code, record, input);
      if (reply.drop || !SendResponse(fd, stopFd, reply.result, reply.record, reply.output)) {
         break;
      }
   }
   close(fd);
   Log("connection " + std::to_string(fd) + " closed");
   connection->done = true;
}

}  // namespace dvs::sim

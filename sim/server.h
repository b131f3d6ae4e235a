// Serves a Simulator on a Unix-domain socket, speaking the library's socket
// transport (kernel/wire_protocol.h): each connection is one client's open
// device, carrying one request/response exchange per ioctl.
//
// One thread accepts connections and one thread serves each connection, so
// a slow or stuck client holds up nobody else; the Simulator serializes the
// commands themselves.  A malformed message never takes the server down:
// a request that still frames correctly (unknown code, input of the wrong
// length) is answered with a failed status, anything else (bad magic, a
// message cut short, a length above kMaxPayload) closes that connection.
#ifndef DVS_SIM_SERVER_H
#define DVS_SIM_SERVER_H

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "sim/simulator.h"

namespace dvs::sim {

class Server {
  public:
   using Logger = std::function<void(const std::string &line)>;

   // The simulator must outlive the server.
   explicit Server(Simulator &simulator);
   // Stops the server if it is still running.
   ~Server();
   Server(const Server &) = delete;
   Server &operator=(const Server &) = delete;

   // Listens on `path` and starts serving.  A stale socket file at the path
   // (one nobody listens on) is replaced; a live socket or any other file is
   // left alone and refused.  Returns false with a message in *error.
   bool Start(const std::string &path, std::string *error);

   // Stops accepting, closes every connection, joins all threads and
   // removes the socket file.  Safe to call more than once.
   void Stop();

   // Called with a line for each connection opened or closed; set it before
   // Start.
   void SetLogger(Logger logger) { logger_ = std::move(logger); }

  private:
   struct Connection {
      int fd = -1;
      std::thread thread;
      std::atomic<bool> done{false};
   };

   void AcceptLoop();
   void Serve(Connection *connection);
   // Joins and forgets the connections whose threads have finished (all of
   // them when `all` is set).
   void Reap(bool all);
   void Log(const std::string &line) const;

   Simulator &simulator_;
   Logger logger_;
   std::string path_;
   // Device and inode of the socket file, so that Stop removes only its own.
   uint64_t socketDev_ = 0;
   uint64_t socketIno_ = 0;
   int listenFd_ = -1;
   // Readable once Stop has begun: every thread polls it next to its socket.
   int stopPipe_[2] = {-1, -1};
   std::thread acceptThread_;
   std::mutex connectionsMutex_;
   std::list<Connection> connections_;
};

}  // namespace dvs::sim

#endif  // DVS_SIM_SERVER_H

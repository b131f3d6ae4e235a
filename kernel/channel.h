// The device channel: the way a command record reaches the kernel switch.
//
// On a host the channel is the switch character device, driven with
// ioctl(2).  When the device path names a Unix-domain socket, the channel is
// a stream connection to the kernel switch simulator and each ioctl is one
// request/response exchange of kernel/wire_protocol.h.  The command code
// above the channel (messages, status preset, result buffers, the kept and
// the fresh descriptor) is the same for both.
#ifndef DVS_KERNEL_CHANNEL_H
#define DVS_KERNEL_CHANNEL_H

#include <dvshyp.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>

// The kernel interface's failure lines go straight to standard error.
#define HYP_ERROR(...) ((void)std::fprintf(stderr, __VA_ARGS__))

namespace dvs::kernel {

// DVS_DEVICE_PATH when set, otherwise DVSHYP_DEVICE_PATH; read once per
// process.
const char *DevicePath();

class Channel {
  public:
   // A channel made with `reconnect` survives the simulator's restart: when
   // it finds its connection dead before an answer, it reconnects once onto
   // the same descriptor number and repeats the exchange.  The process-wide
   // kept channel is made so; fresh per-call channels are not.
   explicit Channel(bool reconnect = false) : reconnect_(reconnect) {}
   Channel(const Channel &) = delete;
   Channel &operator=(const Channel &) = delete;

   // Opens the device path unless already open.  False with errno set when
   // it cannot be opened; a later call tries again.
   bool Open();
   // Issues one command: 0, or -1 with errno set.  On a socket the record's
   // status, dataLen and cmdOutLen are taken back from a well-formed answer
   // (also when the command failed) and nothing else of the record changes.
   int Ioctl(uint32_t code, DVSHYPCmd *rec);
   // Closes the channel; it may be opened again.
   void Close();

  private:
   int SocketIoctl(int fd, uint32_t code, DVSHYPCmd *rec);

   const bool reconnect_;
   // Serializes opening and whole socket exchanges (one stream carries one
   // exchange at a time); device ioctls do not take it.
   std::mutex mutex_;
   // Published after isSocket_, so a reader that sees the descriptor sees
   // its kind.
   std::atomic<int> fd_{-1};
   std::atomic<bool> isSocket_{false};
};

// The socket transport (channel_socket.cc).

// A connected stream socket to the simulator at `path`, or -1 with errno.
int ConnectSimulator(const char *path);

// How one exchange ended.
enum class Exchange {
   kAnswered,  // a well-formed answer; the record holds its fields
   kPeerGone,  // the connection was dead before any answer (errno set)
   kFailed,    // errno set; the stream is shut down if it was left mid-message
};
Exchange ExchangeOnSocket(int fd, uint32_t code, DVSHYPCmd *rec, int *result);

}  // namespace dvs::kernel

#endif  // DVS_KERNEL_CHANNEL_H

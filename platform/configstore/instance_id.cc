// instance_id.cc -- GenerateInstanceId: random (version 4) UUIDs.
#include "client.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <iterator>
#include <random>

namespace configstore {

using namespace client;

namespace {

// The random bits of generated instance ids.  Each thread draws from a
// generator of its own, seeded with 256 bits from /dev/urandom (from
// std::random_device when that cannot be read) the first time it makes an
// id; a forked child seeds its own afresh, so that parent and child never
// go on with the same sequence.
class IdSource {
  public:
   static IdSource &ForThisThread() {
      thread_local IdSource source;
      if (source.pid_ != ::getpid()) {
         source.Seed();
      }
      return source;
   }

   void Fill(unsigned char (&bytes)[16]) {
      for (int half = 0; half < 2; ++half) {
         uint64_t word = engine_();
         for (int i = 0; i < 8; ++i) {
            bytes[half * 8 + i] = static_cast<unsigned char>(word >> (8 * i));
         }
      }
   }

  private:
   void Seed() {
      uint32_t words[8];
      bool filled = false;
      if (FILE *f = std::fopen("/dev/urandom", "rbe")) {
         filled = std::fread(words, 1, sizeof words, f) == sizeof words;
         std::fclose(f);
      }
      if (!filled) {
         std::random_device rd;
         for (uint32_t &w : words) {
            w = rd();
         }
      }
      std::seed_seq seq(std::begin(words), std::end(words));
      engine_.seed(seq);
      pid_ = ::getpid();
   }

   std::mt19937_64 engine_;
   pid_t pid_ = 0;
};

}  // namespace

int32_t GenerateInstanceId(char **id) {
   return Guard([&]() -> int32_t {
      if (id == nullptr) {
         return kBadParam;
      }
      *id = nullptr;
      unsigned char bytes[16];
      IdSource::ForThisThread().Fill(bytes);
      bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);  // version 4
      bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant
      // Lower-case hex in the 8-4-4-4-12 form, written by hand: a
      // formatted print of sixteen bytes cost more than the rest of the
      // call, and a save makes one id per VLAN range it writes.
      static constexpr char kHex[] = "0123456789abcdef";
      char text[37];
      char *out = text;
      for (int i = 0; i < 16; ++i) {
         if (i == 4 || i == 6 || i == 8 || i == 10) {
            *out++ = '-';
         }
         *out++ = kHex[bytes[i] >> 4];
         *out++ = kHex[bytes[i] & 0x0f];
      }
      *out = '\0';
      *id = DupString(text);
      return kSuccess;
   });
}

}  // namespace configstore

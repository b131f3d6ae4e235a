// Base64 encoding and strict decoding.
#include "configstore/base64.h"

#include <cstdlib>
#include <cstring>

namespace dvs::configstore {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The 6-bit value of an alphabet character, or -1.
int SextetOf(char c) {
   if (c >= 'A' && c <= 'Z') {
      return c - 'A';
   }
   if (c >= 'a' && c <= 'z') {
      return c - 'a' + 26;
   }
   if (c >= '0' && c <= '9') {
      return c - '0' + 52;
   }
   if (c == '+') {
      return 62;
   }
   if (c == '/') {
      return 63;
   }
   return -1;
}

}  // namespace

char *Base64Encode(const void *data, size_t len) {
   const size_t groups = len / 3 + (len % 3 != 0 ? 1 : 0);
   if (groups > (SIZE_MAX - 1) / 4) {
      return nullptr;
   }
   char *text = static_cast<char *>(malloc(groups * 4 + 1));
   if (text == nullptr) {
      return nullptr;
   }
   const auto *in = static_cast<const uint8_t *>(data);
   char *out = text;
   for (size_t i = 0; i < len; i += 3) {
      const size_t left = len - i;
      uint32_t bits = static_cast<uint32_t>(in[i]) << 16;
      if (left > 1) {
         bits |= static_cast<uint32_t>(in[i + 1]) << 8;
      }
      if (left > 2) {
         bits |= in[i + 2];
      }
      *out++ = kAlphabet[(bits >> 18) & 0x3f];
      *out++ = kAlphabet[(bits >> 12) & 0x3f];
      *out++ = left > 1 ? kAlphabet[(bits >> 6) & 0x3f] : '=';
      *out++ = left > 2 ? kAlphabet[bits & 0x3f] : '=';
   }
   *out = '\0';
   return text;
}

Base64Status Base64Decode(const char *text, uint8_t **out, size_t *len) {
   *out = nullptr;
   *len = 0;
   const size_t textLen = strlen(text);
   if (textLen % 4 != 0) {
      return Base64Status::kInvalid;
   }
   size_t pad = 0;
   if (textLen > 0 && text[textLen - 1] == '=') {
      pad = text[textLen - 2] == '=' ? 2 : 1;
   }
   const size_t bytes = textLen / 4 * 3 - pad;
   // One byte at least, so that an empty result is still a buffer.
   auto *buf = static_cast<uint8_t *>(malloc(bytes != 0 ? bytes : 1));
   if (buf == nullptr) {
      return Base64Status::kNoMemory;
   }
   size_t o = 0;
   for (size_t i = 0; i < textLen; i += 4) {
      const bool last = i + 4 == textLen;
      // Padding may only fill the end of the last group.
      const size_t used = last ? 4 - pad : 4;
      uint32_t bits = 0;
      for (size_t j = 0; j < 4; j++) {
         int s = j < used ? SextetOf(text[i + j]) : 0;
         if (s < 0) {
            free(buf);
            return Base64Status::kInvalid;
         }
         bits = bits << 6 | static_cast<uint32_t>(s);
      }
      // Bits that the padding leaves unused must be zero, or two texts
      // would decode to the same bytes.
      if ((used == 3 && (bits & 0xff) != 0) || (used == 2 && (bits & 0xffff) != 0)) {
         free(buf);
         return Base64Status::kInvalid;
      }
      buf[o++] = static_cast<uint8_t>(bits >> 16);
      if (used > 2) {
         buf[o++] = static_cast<uint8_t>(bits >> 8);
      }
      if (used > 3) {
         buf[o++] = static_cast<uint8_t>(bits);
      }
   }
   *out = buf;
   *len = bytes;
   return Base64Status::kOk;
}

}  // namespace dvs::configstore

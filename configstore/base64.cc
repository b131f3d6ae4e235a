// Base64 encoding and strict decoding.  The codec itself is libcrypto's;
// its decoder takes much that is not canonical base64 (white space, '='
// anywhere, stray bits under the padding), so the text is checked here
// first and the bits the padding drops afterwards.
#include "configstore/base64.h"

#include <openssl/evp.h>

#include <climits>
#include <cstdlib>
#include <cstring>

namespace dvs::configstore {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Which bytes are in the alphabet, made once: the C library's strspn
// builds such a table again on every call, which cost more than the
// decoding of a short text.
struct AlphabetTable {
   bool in[256] = {};
   constexpr AlphabetTable() {
      for (const char *c = kAlphabet; *c != '\0'; c++) {
         in[static_cast<unsigned char>(*c)] = true;
      }
   }
};
constexpr AlphabetTable kInAlphabet;

// Whether all eight bytes at p are alphabet characters, tested together.
// Each test sets a byte's top bit when the byte passes it; no byte carries
// into the next, since bytes with the top bit set are turned away first.
bool EightInAlphabet(const char *p) {
   constexpr uint64_t kOnes = 0x0101010101010101ULL;
   constexpr uint64_t kHigh = kOnes * 0x80;
   constexpr uint64_t kLow = kOnes * 0x7f;
   uint64_t x;
   std::memcpy(&x, p, sizeof x);
   if ((x & kHigh) != 0) {
      return false;
   }
   // Top bit set in each byte that is at least c (every byte is below 0x80).
   auto atLeast = [&](unsigned c) { return (x + kOnes * (0x80 - c)) & kHigh; };
   // Top bit set in each byte that equals c.
   auto equals = [&](unsigned c) {
      const uint64_t t = x ^ (kOnes * c);
      return ~(((t & kLow) + kLow) | t) & kHigh;
   };
   const uint64_t in = (atLeast('A') & ~atLeast('Z' + 1)) | (atLeast('a') & ~atLeast('z' + 1)) |
                       (atLeast('0') & ~atLeast('9' + 1)) | equals('+') | equals('/');
   return in == kHigh;
}

// The length of the first run of alphabet characters of text's len bytes.
size_t AlphabetRun(const char *text, size_t len) {
   size_t i = 0;
   while (i + 8 <= len && EightInAlphabet(text + i)) {
      i += 8;
   }
   while (i < len && kInAlphabet.in[static_cast<unsigned char>(text[i])]) {
      i++;
   }
   return i;
}

}  // namespace

char *Base64Encode(const void *data, size_t len) {
   // The library counts in int: 4 characters for every 3 bytes.
   if (len > static_cast<size_t>(INT_MAX) / 4 * 3) {
      return nullptr;
   }
   const size_t groups = (len + 2) / 3;
   char *text = static_cast<char *>(malloc(groups * 4 + 1));
   if (text == nullptr) {
      return nullptr;
   }
   EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text), static_cast<const unsigned char *>(data),
                   static_cast<int>(len));
   return text;
}

namespace {

// Whether text (textLen characters) is canonical base64 as far as its
// characters tell; *pad is the number of '=' at its end.
bool CheckText(const char *text, size_t textLen, size_t *pad) {
   if (textLen % 4 != 0 || textLen > static_cast<size_t>(INT_MAX)) {
      return false;
   }
   *pad = 0;
   if (textLen > 0 && text[textLen - 1] == '=') {
      *pad = text[textLen - 2] == '=' ? 2 : 1;
   }
   // Alphabet characters up to the padding, and nothing else.
   return AlphabetRun(text, textLen) == textLen - *pad;
}

// Decodes checked text into out; false when the bits the padding drops
// are not zero.
bool DecodeChecked(const char *text, size_t textLen, size_t pad, uint8_t *out, size_t *len) {
   const size_t whole = Base64DecodedRoom(textLen);  // the library writes every group whole
   if (whole == 0) {
      *len = 0;
      return true;
   }
   const int n = EVP_DecodeBlock(out, reinterpret_cast<const unsigned char *>(text),
                                 static_cast<int>(textLen));
   // The padding decodes as zero bits; the bytes it stands for must hold
   // nothing else, or two texts would decode to the same bytes.
   bool canonical = n >= 0 && static_cast<size_t>(n) == whole;
   for (size_t i = whole - pad; canonical && i < whole; i++) {
      canonical = out[i] == 0;
   }
   *len = canonical ? whole - pad : 0;
   return canonical;
}

}  // namespace

size_t Base64DecodedRoom(size_t textLen) {
   return textLen / 4 * 3;
}

Base64Status Base64DecodeTo(const char *text, size_t textLen, uint8_t *out, size_t *len) {
   *len = 0;
   size_t pad = 0;
   if (!CheckText(text, textLen, &pad) || !DecodeChecked(text, textLen, pad, out, len)) {
      return Base64Status::kInvalid;
   }
   return Base64Status::kOk;
}

Base64Status Base64Decode(const char *text, uint8_t **out, size_t *len) {
   *out = nullptr;
   *len = 0;
   const size_t textLen = strlen(text);
   size_t pad = 0;
   if (!CheckText(text, textLen, &pad)) {
      return Base64Status::kInvalid;
   }
   const size_t room = Base64DecodedRoom(textLen);
   // One byte at least, so that an empty result is still a buffer.
   auto *buf = static_cast<uint8_t *>(malloc(room != 0 ? room : 1));
   if (buf == nullptr) {
      return Base64Status::kNoMemory;
   }
   if (!DecodeChecked(text, textLen, pad, buf, len)) {
      free(buf);
      return Base64Status::kInvalid;
   }
   *out = buf;
   return Base64Status::kOk;
}

}  // namespace dvs::configstore

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

// The length of text's first run of alphabet characters.
size_t AlphabetRun(const char *text, size_t len) {
   size_t i = 0;
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

Base64Status Base64Decode(const char *text, uint8_t **out, size_t *len) {
   *out = nullptr;
   *len = 0;
   const size_t textLen = strlen(text);
   if (textLen % 4 != 0 || textLen > static_cast<size_t>(INT_MAX)) {
      return Base64Status::kInvalid;
   }
   size_t pad = 0;
   if (textLen > 0 && text[textLen - 1] == '=') {
      pad = text[textLen - 2] == '=' ? 2 : 1;
   }
   // Alphabet characters up to the padding, and nothing else.
   if (AlphabetRun(text, textLen) != textLen - pad) {
      return Base64Status::kInvalid;
   }
   const size_t whole = textLen / 4 * 3;  // the library writes every group whole
   // One byte at least, so that an empty result is still a buffer.
   auto *buf = static_cast<uint8_t *>(malloc(whole != 0 ? whole : 1));
   if (buf == nullptr) {
      return Base64Status::kNoMemory;
   }
   const int n = EVP_DecodeBlock(buf, reinterpret_cast<const unsigned char *>(text),
                                 static_cast<int>(textLen));
   // The padding decodes as zero bits; the bytes it stands for must hold
   // nothing else, or two texts would decode to the same bytes.
   bool canonical = n >= 0 && static_cast<size_t>(n) == whole;
   for (size_t i = whole - pad; canonical && i < whole; i++) {
      canonical = buf[i] == 0;
   }
   if (!canonical) {
      free(buf);
      return Base64Status::kInvalid;
   }
   *out = buf;
   *len = whole - pad;
   return Base64Status::kOk;
}

}  // namespace dvs::configstore

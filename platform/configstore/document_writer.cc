// document_writer.cc -- writes the stored document of a node straight into
// one string, without building a JSON tree first.
//
// The output is compact JSON with members in tree order: exactly what the
// store has always written, so existing databases read back unchanged.
// Strings are escaped the usual JSON way (\" \\ \b \f \n \r \t, \u00xx for
// other control characters) and non-ASCII text is copied as UTF-8; a string
// that is not valid UTF-8 cannot be stored and throws DocumentError.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "document.h"

namespace configstore {
namespace detail {

namespace {

// Length of the well-formed UTF-8 sequence at s[i] (lead byte >= 0x80), or
// 0 when it is malformed: overlong, a surrogate, beyond U+10FFFF or cut off.
size_t Utf8SequenceLength(std::string_view s, size_t i) {
   auto at = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
   unsigned char c = at(i);
   size_t len;
   unsigned char lo = 0x80, hi = 0xBF;  // allowed range of the second byte
   if (c >= 0xC2 && c <= 0xDF) {
      len = 2;
   } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3;
      if (c == 0xE0) {
         lo = 0xA0;
      } else if (c == 0xED) {
         hi = 0x9F;
      }
   } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4;
      if (c == 0xF0) {
         lo = 0x90;
      } else if (c == 0xF4) {
         hi = 0x8F;
      }
   } else {
      return 0;
   }
   if (s.size() - i < len || at(i + 1) < lo || at(i + 1) > hi) {
      return 0;
   }
   for (size_t k = 2; k < len; ++k) {
      if (at(i + k) < 0x80 || at(i + k) > 0xBF) {
         return 0;
      }
   }
   return len;
}

// Bytes copied into a JSON string as they are: printable ASCII other than
// '"' and '\\'.
struct PlainAsciiTable {
   bool plain[256] = {};
   constexpr PlainAsciiTable() {
      for (int c = 0x20; c < 0x80; ++c) {
         plain[c] = c != '"' && c != '\\';
      }
   }
   constexpr bool operator[](unsigned char c) const { return plain[c]; }
};
constexpr PlainAsciiTable kPlainAscii;

// Whether all eight bytes at p are plain ASCII (see kPlainAscii), tested
// together: a byte is flagged when its top bit is set (>= 0x80), when it is
// below 0x20, or when it equals '"' or '\\'.  The subtractions borrow from
// a byte only when a lower byte is itself flagged, so the answer is exact.
bool EightPlainAscii(const char *p) {
   constexpr uint64_t kOnes = 0x0101010101010101ULL;
   constexpr uint64_t kHigh = 0x8080808080808080ULL;
   uint64_t x;
   std::memcpy(&x, p, sizeof x);
   if ((x & kHigh) != 0) {
      return false;
   }
   const uint64_t quote = x ^ (kOnes * '"');
   const uint64_t backslash = x ^ (kOnes * '\\');
   const uint64_t flagged = (x - kOnes * 0x20) | (quote - kOnes) | (backslash - kOnes);
   return (flagged & kHigh) == 0;
}

// Writes into `out` through a cursor: the string is grown ahead of the
// cursor in large steps and cut to what was written at the end, so that
// each token is a plain store instead of an append that checks capacity
// and terminates the string every time.
class Writer {
  public:
   // Writes from `start` on; the bytes of out past it are working room.
   Writer(std::string &out, size_t start) : out_(out), pos_(start) {}

   void Document(const detail::Node &node) {
      Put('{');
      Body(node, false);
      Put('}');
      out_.resize(pos_);
   }

  private:
   static constexpr size_t kFirstSize = 4096;

   // Room for n more bytes at the cursor.
   char *Room(size_t n) {
      if (out_.size() - pos_ < n) {
         out_.resize(std::max({out_.size() * 2, pos_ + n, kFirstSize}));
      }
      return out_.data() + pos_;
   }
   void Put(char c) {
      *Room(1) = c;
      ++pos_;
   }
   void Put(std::string_view text) {
      std::memcpy(Room(text.size()), text.data(), text.size());
      pos_ += text.size();
   }

   // The members of a node; `more` when a member was written before them.
   void Body(const detail::Node &node, bool more) {
      if (!node.values.empty()) {
         Put(more ? ",\"values\":{" : "\"values\":{");
         bool first = true;
         for (const auto &entry : node.values) {
            if (!first) {
               Put(',');
            }
            first = false;
            String(entry.first);
            Put(':');
            Value(entry.second);
         }
         Put('}');
         more = true;
      }
      if (!node.subs.empty()) {
         Put(more ? ",\"subobjects\":{" : "\"subobjects\":{");
         bool firstSub = true;
         for (const auto &sub : node.subs) {
            if (!firstSub) {
               Put(',');
            }
            firstSub = false;
            String(sub.key);
            Put(":[");
            bool firstEntry = true;
            for (const auto &child : sub.entries) {
               Put(firstEntry ? "{" : ",{");
               firstEntry = false;
               bool hasId = !child->id.empty();
               if (hasId) {
                  Put("\"id\":");
                  String(child->id);
               }
               Body(*child, hasId);
               Put('}');
            }
            Put(']');
         }
         Put('}');
      }
   }

   void Value(const detail::Value &v) {
      switch (v.kind) {
         case Kind::kString:
            String(v.str);
            return;
         case Kind::kInt:
            Int(v.num);
            return;
         case Kind::kBool:
            Put(v.num != 0 ? "true" : "false");
            return;
         case Kind::kStringList:
            Put('[');
            for (size_t i = 0; i < v.strs().size(); ++i) {
               if (i != 0) {
                  Put(',');
               }
               String(v.strs()[i]);
            }
            Put(']');
            return;
         case Kind::kIntList:
            Put('[');
            for (size_t i = 0; i < v.nums().size(); ++i) {
               if (i != 0) {
                  Put(',');
               }
               Int(v.nums()[i]);
            }
            Put(']');
            return;
         case Kind::kEmptyList:
            Put("[]");
            return;
      }
   }

   void Int(int64_t n) {
      constexpr size_t kMaxDigits = 20;  // INT64_MIN: a sign and 19 digits
      char *p = Room(kMaxDigits);
      pos_ = static_cast<size_t>(std::to_chars(p, p + kMaxDigits, n).ptr - out_.data());
   }

   void String(std::string_view s) {
      const size_t n = s.size();
      // Most texts are plain ASCII through and through: one reservation,
      // then the quotes and the text as it is.
      size_t plain = 0;
      while (plain + 8 <= n && EightPlainAscii(s.data() + plain)) {
         plain += 8;
      }
      while (plain < n && kPlainAscii[static_cast<unsigned char>(s[plain])]) {
         ++plain;
      }
      if (plain == n) {
         char *p = Room(n + 2);
         p[0] = '"';
         std::memcpy(p + 1, s.data(), n);
         p[n + 1] = '"';
         pos_ += n + 2;
         return;
      }
      EscapedString(s);
   }

   // A text with bytes to escape or to check as UTF-8.
   void EscapedString(std::string_view s) {
      static const char kHex[] = "0123456789abcdef";
      Put('"');
      const size_t n = s.size();
      size_t i = 0;
      while (i < n) {
         // Printable ASCII other than the quote and the backslash, and
         // well-formed UTF-8, are copied as they are, a run at a time.
         size_t run = i;
         while (run + 8 <= n && EightPlainAscii(s.data() + run)) {
            run += 8;
         }
         while (run < n) {
            const auto c = static_cast<unsigned char>(s[run]);
            if (kPlainAscii[c]) {
               ++run;
            } else if (c >= 0x80) {
               const size_t len = Utf8SequenceLength(s, run);
               if (len == 0) {
                  throw DocumentError("a string is not valid UTF-8");
               }
               run += len;
            } else {
               break;
            }
         }
         Put(s.substr(i, run - i));
         if (run == n) {
            break;
         }
         const auto c = static_cast<unsigned char>(s[run]);
         char *p = Room(6);
         *p++ = '\\';
         switch (c) {
            case '"':
               *p++ = '"';
               break;
            case '\\':
               *p++ = '\\';
               break;
            case '\b':
               *p++ = 'b';
               break;
            case '\f':
               *p++ = 'f';
               break;
            case '\n':
               *p++ = 'n';
               break;
            case '\r':
               *p++ = 'r';
               break;
            case '\t':
               *p++ = 't';
               break;
            default:
               *p++ = 'u';
               *p++ = '0';
               *p++ = '0';
               *p++ = kHex[c >> 4];
               *p++ = kHex[c & 0xF];
         }
         pos_ = static_cast<size_t>(p - out_.data());
         i = run + 1;
      }
      Put('"');
   }

   std::string &out_;
   size_t pos_;  // end of what was written; out_ holds spare bytes past it
};

}  // namespace

std::string SerializeDocument(const Node &node) {
   std::string out;
   SerializeDocument(node, &out);
   return out;
}

void SerializeDocument(const Node &node, std::string *out) {
   // The whole capacity is working room: the writer cuts the text to size.
   out->resize(out->capacity());
   Writer(*out, 0).Document(node);
}

}  // namespace detail
}  // namespace configstore

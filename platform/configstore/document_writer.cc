// document_writer.cc -- writes the stored document of a node straight into
// one string, without building a JSON tree first.
//
// The output is compact JSON with members in tree order: exactly what the
// store has always written, so existing databases read back unchanged.
// Strings are escaped the usual JSON way (\" \\ \b \f \n \r \t, \u00xx for
// other control characters) and non-ASCII text is copied as UTF-8; a string
// that is not valid UTF-8 cannot be stored and throws DocumentError.
#include <charconv>
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

class Writer {
  public:
   explicit Writer(std::string &out) : out_(out) {}

   void Node(const detail::Node &node) {
      out_ += '{';
      Body(node, false);
      out_ += '}';
   }

  private:
   // The members of a node; `more` when a member was written before them.
   void Body(const detail::Node &node, bool more) {
      if (!node.values.empty()) {
         out_ += more ? ",\"values\":{" : "\"values\":{";
         bool first = true;
         for (const auto &entry : node.values) {
            if (!first) {
               out_ += ',';
            }
            first = false;
            String(entry.first);
            out_ += ':';
            Value(entry.second);
         }
         out_ += '}';
         more = true;
      }
      if (!node.subs.empty()) {
         out_ += more ? ",\"subobjects\":{" : "\"subobjects\":{";
         bool firstSub = true;
         for (const auto &sub : node.subs) {
            if (!firstSub) {
               out_ += ',';
            }
            firstSub = false;
            String(sub.key);
            out_ += ":[";
            bool firstEntry = true;
            for (const auto &child : sub.entries) {
               out_ += firstEntry ? "{" : ",{";
               firstEntry = false;
               bool hasId = !child->id.empty();
               if (hasId) {
                  out_ += "\"id\":";
                  String(child->id);
               }
               Body(*child, hasId);
               out_ += '}';
            }
            out_ += ']';
         }
         out_ += '}';
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
            out_ += v.num != 0 ? "true" : "false";
            return;
         case Kind::kStringList:
            out_ += '[';
            for (size_t i = 0; i < v.strs().size(); ++i) {
               if (i != 0) {
                  out_ += ',';
               }
               String(v.strs()[i]);
            }
            out_ += ']';
            return;
         case Kind::kIntList:
            out_ += '[';
            for (size_t i = 0; i < v.nums().size(); ++i) {
               if (i != 0) {
                  out_ += ',';
               }
               Int(v.nums()[i]);
            }
            out_ += ']';
            return;
         case Kind::kEmptyList:
            out_ += "[]";
            return;
      }
   }

   void Int(int64_t n) {
      char buf[24];
      auto res = std::to_chars(buf, buf + sizeof buf, n);
      out_.append(buf, res.ptr);
   }

   void String(std::string_view s) {
      static const char kHex[] = "0123456789abcdef";
      out_ += '"';
      const size_t n = s.size();
      size_t plain = 0;  // start of the run not yet copied
      size_t i = 0;
      while (i < n) {
         // Printable ASCII other than the quote and the backslash runs on.
         while (i < n && kPlainAscii[static_cast<unsigned char>(s[i])]) {
            ++i;
         }
         if (i == n) {
            break;
         }
         unsigned char c = static_cast<unsigned char>(s[i]);
         if (c >= 0x80) {
            size_t len = Utf8SequenceLength(s, i);
            if (len == 0) {
               throw DocumentError("a string is not valid UTF-8");
            }
            i += len;
            continue;
         }
         out_.append(s.data() + plain, i - plain);
         switch (c) {
            case '"':
               out_ += "\\\"";
               break;
            case '\\':
               out_ += "\\\\";
               break;
            case '\b':
               out_ += "\\b";
               break;
            case '\f':
               out_ += "\\f";
               break;
            case '\n':
               out_ += "\\n";
               break;
            case '\r':
               out_ += "\\r";
               break;
            case '\t':
               out_ += "\\t";
               break;
            default: {
               const char esc[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
               out_.append(esc, sizeof esc);
            }
         }
         plain = ++i;
      }
      out_.append(s.data() + plain, n - plain);
      out_ += '"';
   }

   std::string &out_;
};

}  // namespace

std::string SerializeDocument(const Node &node) {
   std::string out;
   // Grows once or twice for large objects; a typical document fits.
   out.reserve(4096);
   Writer(out).Node(node);
   return out;
}

}  // namespace detail
}  // namespace configstore

// property_fields.cc -- record bytes, encode fields and field tables.
#include "property_fields.h"

namespace dvsctl::fields {

std::string Hex(const uint8_t *p, size_t n) {
   static const char kDigits[] = "0123456789abcdef";
   std::string out;
   for (size_t i = 0; i < n; i++) {
      out += kDigits[p[i] >> 4];
      out += kDigits[p[i] & 0xf];
   }
   return out;
}

bool AllZero(const uint8_t *p, size_t n) {
   for (size_t i = 0; i < n; i++) {
      if (p[i] != 0) {
         return false;
      }
   }
   return true;
}

bool SlotText(const uint8_t *slot, size_t width, std::string &out) {
   const void *nul = std::memchr(slot, '\0', width);
   if (nul == nullptr) {
      return false;
   }
   out.assign(reinterpret_cast<const char *>(slot), static_cast<const uint8_t *>(nul) - slot);
   return true;
}

void PutText(uint8_t *slot, const std::string &text) {
   std::memcpy(slot, text.data(), text.size());
}

bool Refuse(std::string &why, std::string reason) {
   why = std::move(reason);
   return false;
}

bool ExactSize(size_t len, size_t want, std::string &why) {
   if (len == want) {
      return true;
   }
   return Refuse(why, std::to_string(len) + " bytes, the layout has " + std::to_string(want));
}

const Fields &Member(const Fields &obj, const char *key, const Where &where) {
   if (!obj.is_object()) {
      where.Fail("not an object");
   }
   const auto it = obj.find(key);
   if (it == obj.end()) {
      where.Fail(std::string("missing \"") + key + "\"");
   }
   return *it;
}

uint64_t NumberValue(const Fields &obj, const char *key, uint64_t max, const Where &where) {
   const Fields &v = Member(obj, key, where);
   uint64_t n = 0;
   if (v.is_number_unsigned()) {
      n = v.get<uint64_t>();
   } else if (v.is_number_integer() && v.get<int64_t>() >= 0) {
      n = static_cast<uint64_t>(v.get<int64_t>());
   } else {
      where.At(key).Fail("not an unsigned integer");
   }
   if (n > max) {
      where.At(key).Fail(std::to_string(n) + " is above " + std::to_string(max));
   }
   return n;
}

std::string Text(const Fields &obj, const char *key, size_t slot, const Where &where) {
   const Fields &v = Member(obj, key, where);
   if (!v.is_string()) {
      where.At(key).Fail("not a text");
   }
   std::string text = v.get<std::string>();
   if (text.size() >= slot || text.find('\0') != std::string::npos) {
      where.At(key).Fail("\"" + text + "\" does not fit " + std::to_string(slot - 1) +
                         " characters");
   }
   return text;
}

const Fields &List(const Fields &obj, const char *key, size_t max, const Where &where) {
   const Fields &v = Member(obj, key, where);
   if (!v.is_array()) {
      where.At(key).Fail("not a list");
   }
   if (v.size() > max) {
      where.At(key).Fail(std::to_string(v.size()) + " entries, at most " + std::to_string(max));
   }
   return v;
}

void OptionalHex(const Fields &obj, const char *key, uint8_t *p, size_t n, const Where &where) {
   const auto it = obj.find(key);
   if (it == obj.end()) {
      return;
   }
   if (!it->is_string() || it->get<std::string>().size() != 2 * n) {
      where.At(key).Fail("not " + std::to_string(n) + " bytes of hex");
   }
   const std::string hex = it->get<std::string>();
   for (size_t i = 0; i < n; i++) {
      const std::string pair = hex.substr(2 * i, 2);
      if (pair.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
         where.At(key).Fail("not hex");
      }
      p[i] = static_cast<uint8_t>(std::stoul(pair, nullptr, 16));
   }
}

namespace {

uint64_t GetUint(const uint8_t *p, size_t width) {
   switch (width) {
      case 1:
         return *p;
      case 2:
         return Get<uint16_t>(p);
      case 4:
         return Get<uint32_t>(p);
      default:
         return Get<uint64_t>(p);
   }
}

void PutUint(uint8_t *p, size_t width, uint64_t v) {
   switch (width) {
      case 1:
         *p = static_cast<uint8_t>(v);
         break;
      case 2:
         Put(p, static_cast<uint16_t>(v));
         break;
      case 4:
         Put(p, static_cast<uint32_t>(v));
         break;
      default:
         Put(p, v);
         break;
   }
}

uint64_t MaxOf(size_t width) {
   return width >= 8 ? std::numeric_limits<uint64_t>::max() : (uint64_t{1} << (8 * width)) - 1;
}

}  // namespace

bool DecodeFields(FieldTable table, const uint8_t *p, Fields &out) {
   std::string reserved;
   bool reservedSet = false;
   for (const Field &f : table) {
      switch (f.kind) {
         case FieldKind::kUint:
            out[f.name] = GetUint(p + f.offset, f.width);
            break;
         case FieldKind::kText: {
            std::string text;
            if (!SlotText(p + f.offset, f.width, text)) {
               return false;
            }
            out[f.name] = text;
            break;
         }
         case FieldKind::kReserved:
            reserved += Hex(p + f.offset, f.width);
            reservedSet = reservedSet || !AllZero(p + f.offset, f.width);
            break;
      }
   }
   if (reservedSet) {
      out["reserved"] = reserved;
   }
   return true;
}

void EncodeFields(FieldTable table, const Fields &obj, uint8_t *p, const Where &where) {
   size_t reservedWidth = 0;
   for (const Field &f : table) {
      switch (f.kind) {
         case FieldKind::kUint:
            PutUint(p + f.offset, f.width, NumberValue(obj, f.name, MaxOf(f.width), where));
            break;
         case FieldKind::kText:
            PutText(p + f.offset, Text(obj, f.name, f.width, where));
            break;
         case FieldKind::kReserved:
            reservedWidth += f.width;
            break;
      }
   }
   if (reservedWidth == 0 || !obj.contains("reserved")) {
      return;
   }
   std::string bytes(reservedWidth, '\0');
   OptionalHex(obj, "reserved", reinterpret_cast<uint8_t *>(bytes.data()), reservedWidth, where);
   size_t from = 0;
   for (const Field &f : table) {
      if (f.kind == FieldKind::kReserved) {
         std::memcpy(p + f.offset, bytes.data() + from, f.width);
         from += f.width;
      }
   }
}

}  // namespace dvsctl::fields

// blob_tree.cc -- a property blob decoded into a tree, and its renderings.
#include "blob_tree.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <dvsdata.h>

#include "property_list.h"

namespace dvsctl {
namespace {

// Keeps every record with a non-zero flag; the display wants all of them,
// not just the ones the library itself would load.
constexpr uint32_t kAllTypes = 0xffffffffu;

constexpr char kDigits[] = "0123456789abcdef";

uint32_t ReadU32(const Bytes &bytes, size_t offset) {
   uint32_t v;
   std::memcpy(&v, bytes.data() + offset, sizeof v);
   return v;
}

// Records in a blob the library has already accepted, found by following
// each record's serialLen up to the zero end marker.
uint32_t CountRecords(const Bytes &blob) {
   uint32_t count = 0;
   size_t offset = DVSDATA_HEADER_SIZE;
   while (offset + sizeof(uint32_t) <= blob.size()) {
      const uint32_t serialLen = ReadU32(blob, offset);
      if (serialLen == 0) {
         break;
      }
      ++count;
      if (serialLen > blob.size() - offset) {
         break;
      }
      offset += serialLen;
   }
   return count;
}

bool LooksLikeWholeBlob(const Bytes &value) {
   return value.size() >= DVSDATA_MIN_BLOB_SIZE && ReadU32(value, 0) == value.size();
}

// Printable ASCII throughout, apart from at most one trailing NUL.
bool IsText(const Bytes &value) {
   size_t n = value.size();
   if (n > 0 && value[n - 1] == 0) {
      --n;
   }
   return std::all_of(value.begin(), value.begin() + static_cast<std::ptrdiff_t>(n),
                      [](uint8_t c) { return c >= 0x20 && c <= 0x7e; });
}

ReturnStatus Decode(const Bytes &blob, int depth, BlobTree &tree) {
   ListPtr list;
   const ReturnStatus status = DecodeList(blob, kAllTypes, list);
   if (status != STATUS_OK) {
      return status;
   }
   tree = BlobTree{};
   tree.length = ReadU32(blob, 0);
   tree.checksum = ReadU32(blob, 4);

   DVSDataEntry *entry = nullptr;
   while (DVSData_Next(list.get(), entry, &entry) == STATUS_OK && entry != nullptr) {
      Property prop;
      const char *name = DVSData_Name(entry);
      prop.name.assign(name, strnlen(name, DVSDATA_NAME_MAX));
      prop.flag = DVSData_PropType(entry);  // the whole flag word
      void *data = nullptr;
      prop.length = DVSData_Data(entry, &data);
      const auto *bytes = static_cast<const uint8_t *>(data);
      Bytes value(bytes, bytes + prop.length);

      BlobTree nested;
      if (depth < kMaxBlobDepth && LooksLikeWholeBlob(value) &&
          Decode(value, depth + 1, nested) == STATUS_OK) {
         prop.value = std::move(nested);
         prop.nestedBytes = std::move(value);
      } else if (IsText(value)) {
         if (!value.empty() && value.back() == 0) {
            value.pop_back();
         }
         prop.value = std::string(value.begin(), value.end());
      } else {
         prop.value = std::move(value);
      }
      tree.properties.push_back(std::move(prop));
   }

   const uint32_t records = CountRecords(blob);
   if (records > tree.properties.size()) {
      tree.hidden = records - static_cast<uint32_t>(tree.properties.size());
   }
   return STATUS_OK;
}

std::string Hex(const Bytes &bytes, size_t limit, const char *separator) {
   const size_t shown = (limit != 0 && bytes.size() > limit) ? limit : bytes.size();
   std::string out;
   for (size_t i = 0; i < shown; ++i) {
      if (i != 0) {
         out += separator;
      }
      out += kDigits[bytes[i] >> 4];
      out += kDigits[bytes[i] & 0xf];
   }
   if (shown < bytes.size()) {
      out += " ...";
   }
   return out;
}

std::string Quote(const std::string &text) {
   std::string out = "\"";
   for (char c : text) {
      if (c == '"' || c == '\\') {
         out += '\\';
      }
      out += c;
   }
   return out + "\"";
}

std::string Summary(const BlobTree &tree) {
   char buf[96];
   const size_t n = tree.properties.size();
   std::snprintf(buf, sizeof buf, "%zu record%s, checksum 0x%08x", n, n == 1 ? "" : "s",
                 tree.checksum);
   std::string out = buf;
   if (tree.hidden != 0) {
      out += ", " + std::to_string(tree.hidden) + " with flag 0 not shown";
   }
   return out;
}

void RenderRecords(const BlobTree &tree, size_t indent, const TextOptions &options,
                   std::string &out) {
   std::vector<std::string> names;
   size_t nameWidth = 0;
   size_t lenWidth = 0;
   for (const Property &p : tree.properties) {
      names.push_back(EscapeName(p.name));
      nameWidth = std::max(nameWidth, names.back().size());
      lenWidth = std::max(lenWidth, std::to_string(p.length).size());
   }

   for (size_t i = 0; i < tree.properties.size(); ++i) {
      const Property &p = tree.properties[i];
      char fields[64];
      std::snprintf(fields, sizeof fields, "  flag 0x%08x  len %*u  ", p.flag,
                    static_cast<int>(lenWidth), p.length);
      out.append(indent, ' ');
      out += names[i];
      out.append(nameWidth - names[i].size(), ' ');
      out += fields;
      if (const auto *text = std::get_if<std::string>(&p.value)) {
         out += Quote(*text) + "\n";
      } else if (const auto *bytes = std::get_if<Bytes>(&p.value)) {
         out += Hex(*bytes, options.hexLimit, " ") + "\n";
      } else {
         const auto &nested = std::get<BlobTree>(p.value);
         out += "blob, " + Summary(nested) + "\n";
         RenderRecords(nested, indent + 2, options, out);
      }
   }
}

nlohmann::ordered_json BlobJson(const BlobTree &tree) {
   nlohmann::ordered_json props = nlohmann::ordered_json::array();
   for (const Property &p : tree.properties) {
      nlohmann::ordered_json jp = {{"name", p.name}, {"flag", p.flag}, {"length", p.length}};
      if (const auto *text = std::get_if<std::string>(&p.value)) {
         jp["text"] = *text;
      } else if (const auto *bytes = std::get_if<Bytes>(&p.value)) {
         jp["hex"] = Hex(*bytes, 0, "");
      } else {
         const nlohmann::ordered_json nested = BlobJson(std::get<BlobTree>(p.value));
         for (const auto &key : {"checksum", "hidden", "properties"}) {
            if (nested.contains(key)) {
               jp[key] = nested[key];
            }
         }
      }
      props.push_back(std::move(jp));
   }

   nlohmann::ordered_json out = {{"length", tree.length}, {"checksum", tree.checksum}};
   if (tree.hidden != 0) {
      out["hidden"] = tree.hidden;
   }
   out["properties"] = std::move(props);
   return out;
}

}  // namespace

// A name as text output shows it: bytes outside printable ASCII become
// \xNN (a damaged or foreign blob must not put control characters on the
// terminal) and a backslash is doubled, so the escape stays unambiguous.
std::string EscapeName(const std::string &name) {
   std::string out;
   for (unsigned char c : name) {
      if (c == '\\') {
         out += "\\\\";
      } else if (c >= 0x20 && c <= 0x7e) {
         out += static_cast<char>(c);
      } else {
         out += "\\x";
         out += kDigits[c >> 4];
         out += kDigits[c & 0xf];
      }
   }
   return out;
}

Bytes StoredValue(const Property &p) {
   if (const auto *bytes = std::get_if<Bytes>(&p.value)) {
      return *bytes;
   }
   if (const auto *text = std::get_if<std::string>(&p.value)) {
      Bytes raw(text->begin(), text->end());
      if (raw.size() < p.length) {
         raw.push_back(0);  // the NUL the decoder dropped
      }
      return raw;
   }
   return p.nestedBytes;
}

ReturnStatus DecodeBlobTree(const Bytes &blob, BlobTree &tree) {
   return Decode(blob, 0, tree);
}

std::string RenderText(const BlobTree &tree, const TextOptions &options) {
   std::string out = "blob: length " + std::to_string(tree.length) + ", " + Summary(tree) + "\n";
   RenderRecords(tree, 2, options, out);
   return out;
}

std::string RenderRecordLines(const BlobTree &tree, size_t indent, const TextOptions &options) {
   std::string out;
   RenderRecords(tree, indent, options, out);
   return out;
}

nlohmann::ordered_json RenderJson(const BlobTree &tree) {
   return BlobJson(tree);
}

std::string RenderJsonText(const BlobTree &tree) {
   return RenderJson(tree).dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) +
          "\n";
}

}  // namespace dvsctl

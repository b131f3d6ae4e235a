// host_blob_view.cc -- a host configuration blob read as switches and ports.
#include "host_blob_view.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include <dvsstate.h>

#include "error.h"
#include "property_list.h"

namespace dvsctl {
namespace {

// The fixed records of a switch blob; every other record is a port.
enum HeaderField { kVersion, kClassName, kMaxPorts, kGlobal, kHost, kHeaderFields };
constexpr const char *kHeaderNames[kHeaderFields] = {DVS_REC_SWITCH_VERSION, DVS_REC_CLASS_NAME,
                                                     DVS_REC_MAX_PORTS, DVS_REC_GLOBAL_PROPS,
                                                     DVS_REC_HOST_PROPS};

using Problems = std::vector<std::string>;

const Property *FindProperty(const BlobTree &tree, const char *name) {
   for (const Property &p : tree.properties) {
      if (p.name == name) {
         return &p;
      }
   }
   return nullptr;
}

// The value's bytes as stored; none when it decoded as a nested blob.
std::optional<Bytes> RawValue(const Property &p) {
   if (std::holds_alternative<BlobTree>(p.value)) {
      return std::nullopt;
   }
   return StoredValue(p);
}

std::string LengthProblem(const std::string &what, uint32_t length, const char *expected) {
   return what + ": " + std::to_string(length) + " bytes, expected " + expected;
}

std::optional<uint32_t> ReadU32(const Property &p, const std::string &what, Problems &problems) {
   const std::optional<Bytes> raw = RawValue(p);
   if (!raw || raw->size() != sizeof(uint32_t)) {
      problems.push_back(LengthProblem(what, p.length, "4"));
      return std::nullopt;
   }
   uint32_t value;
   std::memcpy(&value, raw->data(), sizeof value);
   return value;
}

std::optional<std::string> ReadClassName(const Property &p, Problems &problems) {
   const std::optional<Bytes> raw = RawValue(p);
   // The registry writes the whole 128-byte field; a blob built from the
   // configuration store carries just the text and its NUL.
   if (!raw || raw->empty() || raw->size() > DVS_CLASS_NAME_MAX) {
      problems.push_back(LengthProblem("className", p.length, "1 to 128"));
      return std::nullopt;
   }
   const auto nul = std::find(raw->begin(), raw->end(), 0);
   const bool printable =
      std::all_of(raw->begin(), nul, [](uint8_t c) { return c >= 0x20 && c <= 0x7e; });
   if (nul == raw->end() || !printable) {
      problems.push_back("className: not NUL-terminated text");
      return std::nullopt;
   }
   if (std::any_of(nul, raw->end(), [](uint8_t c) { return c != 0; })) {
      problems.push_back("className: bytes after the terminator are not zero");
   }
   return std::string(raw->begin(), nul);
}

// A text property of `list`; none when absent or not text.
std::optional<std::string> ReadText(const BlobTree &list, const char *name, const std::string &what,
                                    Problems &problems) {
   const Property *p = FindProperty(list, name);
   if (p == nullptr) {
      return std::nullopt;
   }
   if (const auto *text = std::get_if<std::string>(&p->value)) {
      return *text;
   }
   problems.push_back(what + ": not text");
   return std::nullopt;
}

const BlobTree *ReadList(const Property &p, const std::string &what, Problems &problems) {
   const auto *list = std::get_if<BlobTree>(&p.value);
   if (list == nullptr) {
      problems.push_back(what + ": not a property blob (" + std::to_string(p.length) + " bytes)");
   } else if (list->hidden != 0) {
      problems.push_back(what + ": " + std::to_string(list->hidden) +
                         " record(s) with flag 0 not shown");
   }
   return list;
}

std::string PortType(const BlobTree &data, Problems &problems) {
   const Property *p = FindProperty(data, DVS_PROP_PORT_TYPE);
   if (p == nullptr) {
      return "active?";
   }
   const std::optional<uint32_t> type = ReadU32(*p, "type", problems);
   if (!type) {
      return "invalid";
   }
   switch (*type) {
      case DVS_PORT_ACTIVE:
         return "active";
      case DVS_PORT_SHADOW:
         return "shadow";
      case DVS_PORT_ZOMBIE:
         return "zombie";
      case DVS_PORT_LOCAL_CACHE:
         return "local-cache";
      default:
         return "unknown(" + std::to_string(*type) + ")";
   }
}

PortView ReadPort(const Property &p) {
   PortView port;
   port.id = p.name;
   if (const BlobTree *data = ReadList(p, "port data", port.problems)) {
      port.data = *data;
      port.type = PortType(port.data, port.problems);
      port.alias = ReadText(port.data, DVS_PROP_PORT_ALIAS, "alias", port.problems);
   } else {
      port.type = "invalid";
   }
   return port;
}

SwitchView ReadSwitch(const std::string &id, const BlobTree &blob) {
   SwitchView sw;
   sw.id = id;
   bool seen[kHeaderFields] = {};
   for (const Property &p : blob.properties) {
      const auto *name = std::find(std::begin(kHeaderNames), std::end(kHeaderNames), p.name);
      const auto field = static_cast<HeaderField>(name - std::begin(kHeaderNames));
      if (field == kHeaderFields) {
         sw.ports.push_back(ReadPort(p));
         if (!std::holds_alternative<BlobTree>(p.value)) {
            sw.unreadable.push_back("port " + EscapeName(p.name) + ": " +
                                    sw.ports.back().problems.front());
         }
         continue;
      }
      if (seen[field]) {
         sw.problems.push_back(p.name + ": repeated; the first one is shown");
         continue;
      }
      seen[field] = true;
      const size_t problemsBefore = sw.problems.size();
      switch (field) {
         case kVersion:
            sw.version = ReadU32(p, p.name, sw.problems);
            break;
         case kClassName:
            sw.className = ReadClassName(p, sw.problems);
            break;
         case kMaxPorts:
            sw.maxPorts = ReadU32(p, p.name, sw.problems);
            break;
         case kGlobal:
         case kHost:
            if (const BlobTree *list = ReadList(p, p.name, sw.problems)) {
               (field == kGlobal ? sw.global : sw.host) = *list;
            }
            break;
         default:
            break;
      }
      const bool read = field == kVersion     ? sw.version.has_value()
                        : field == kClassName ? sw.className.has_value()
                        : field == kMaxPorts  ? sw.maxPorts.has_value()
                                              : std::holds_alternative<BlobTree>(p.value);
      if (!read && sw.problems.size() > problemsBefore) {
         sw.unreadable.push_back(sw.problems[problemsBefore]);
      }
   }
   for (int i = 0; i < kHeaderFields; ++i) {
      if (!seen[i]) {
         sw.problems.push_back(std::string(kHeaderNames[i]) + ": missing");
         sw.missing.push_back(kHeaderNames[i]);
      }
   }
   if (blob.hidden != 0) {
      sw.problems.push_back(std::to_string(blob.hidden) + " record(s) with flag 0 not shown");
   }
   sw.alias = ReadText(sw.global, DVS_PROP_SWITCH_ALIAS, "alias", sw.problems);
   return sw;
}

template <typename T>
std::string OrInvalid(const std::optional<T> &value) {
   if (!value) {
      return "<invalid>";
   }
   if constexpr (std::is_same_v<T, std::string>) {
      return *value;
   } else {
      return std::to_string(*value);
   }
}

void RenderProblems(const Problems &problems, size_t indent, std::string &out) {
   for (const std::string &problem : problems) {
      out.append(indent, ' ');
      out += "problem: " + EscapeName(problem) + "\n";
   }
}

void RenderList(const char *heading, const BlobTree &list, const TextOptions &options,
                std::string &out) {
   out += std::string("  ") + heading + ":\n";
   out += list.properties.empty() ? "    (none)\n" : RenderRecordLines(list, 4, options);
}

void RenderPorts(const std::vector<PortView> &ports, const TextOptions &options, std::string &out) {
   out += "  ports:\n";
   if (ports.empty()) {
      out += "    (none)\n";
   }
   // Columns: id, type, alias, each padded to the longest of the switch.
   size_t width[3] = {};
   for (const PortView &port : ports) {
      width[0] = std::max(width[0], EscapeName(port.id).size());
      width[1] = std::max(width[1], port.type.size());
      width[2] = std::max(width[2], port.alias.value_or("-").size());
   }
   for (const PortView &port : ports) {
      const std::string column[3] = {EscapeName(port.id), port.type, port.alias.value_or("-")};
      out += "    ";
      for (int i = 0; i < 3; ++i) {
         out += (i == 2 ? "alias " : "") + column[i] +
                std::string(width[i] - column[i].size(), ' ') + "  ";
      }
      const size_t n = port.data.properties.size();
      out += std::to_string(n) + (n == 1 ? " property\n" : " properties\n");
      RenderProblems(port.problems, 6, out);
      out += RenderRecordLines(port.data, 6, options);
   }
}

template <typename T>
nlohmann::ordered_json OrNull(const std::optional<T> &value) {
   return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

}  // namespace

HostBlobView ViewHostBlob(const Bytes &blob, const std::string &name) {
   BlobTree tree;
   const ReturnStatus status = DecodeBlobTree(blob, tree);
   if (status != STATUS_OK) {
      throw DecodeError(name, blob, status);
   }
   HostBlobView view;
   std::string reason;
   if (!BuildHostBlobView(tree, view, reason)) {
      throw Error(name + ": not a host configuration blob: " + reason);
   }
   return view;
}

bool BuildHostBlobView(const BlobTree &tree, HostBlobView &view, std::string &reason) {
   view = HostBlobView{};
   view.length = tree.length;
   view.checksum = tree.checksum;
   for (const Property &p : tree.properties) {
      const auto *blob = std::get_if<BlobTree>(&p.value);
      if (blob == nullptr || FindProperty(*blob, kHeaderNames[kVersion]) == nullptr) {
         reason = "record \"" + EscapeName(p.name) + "\" is not a switch blob";
         reason += blob == nullptr ? " (its value is not a property blob)" : " (no switchVersion)";
         if (FindProperty(tree, kHeaderNames[kVersion]) != nullptr) {
            reason += "; this looks like a single switch blob";
         }
         return false;
      }
      view.switches.push_back(ReadSwitch(p.name, *blob));
   }
   return true;
}

std::string RenderHostText(const HostBlobView &view, const TextOptions &options) {
   char header[96];
   std::snprintf(header, sizeof header, "host blob: length %u, checksum 0x%08x, ", view.length,
                 view.checksum);
   const size_t n = view.switches.size();
   std::string out = header + std::to_string(n) + (n == 1 ? " switch\n" : " switches\n");
   for (const SwitchView &sw : view.switches) {
      out += "\nswitch " + EscapeName(sw.id) + "  class " + OrInvalid(sw.className) + "  version " +
             OrInvalid(sw.version) + "  maxPorts " + OrInvalid(sw.maxPorts) + "  alias " +
             sw.alias.value_or("-") + "\n";
      RenderProblems(sw.problems, 2, out);
      RenderList("global properties", sw.global, options, out);
      RenderList("host properties", sw.host, options, out);
      RenderPorts(sw.ports, options, out);
   }
   return out;
}

nlohmann::ordered_json RenderHostJson(const HostBlobView &view) {
   nlohmann::ordered_json switches = nlohmann::ordered_json::array();
   for (const SwitchView &sw : view.switches) {
      nlohmann::ordered_json ports = nlohmann::ordered_json::array();
      for (const PortView &port : sw.ports) {
         nlohmann::ordered_json jp = {{"id", port.id},
                                      {"type", port.type},
                                      {"alias", OrNull(port.alias)},
                                      {"properties", RenderJson(port.data)["properties"]}};
         if (!port.problems.empty()) {
            jp["problems"] = port.problems;
         }
         ports.push_back(std::move(jp));
      }
      nlohmann::ordered_json js = {{"id", sw.id},
                                   {"className", OrNull(sw.className)},
                                   {"version", OrNull(sw.version)},
                                   {"maxPorts", OrNull(sw.maxPorts)},
                                   {"alias", OrNull(sw.alias)},
                                   {"global", RenderJson(sw.global)["properties"]},
                                   {"host", RenderJson(sw.host)["properties"]},
                                   {"ports", std::move(ports)}};
      if (!sw.problems.empty()) {
         js["problems"] = sw.problems;
      }
      switches.push_back(std::move(js));
   }
   return {{"switches", std::move(switches)}};
}

}  // namespace dvsctl

// host_blob_view.h -- a host configuration blob read as switches and ports.
//
// The host blob is a property blob with one record per switch, named by the
// switch id, whose value is the switch blob (record names: DVS_REC_* in
// dvsstate.h):
//
//   switchVersion   u32
//   className       128 bytes: text, NUL, zeros
//   maxPorts        u32
//   globalPropList  property blob
//   hostPropList    property blob
//   <port id>       property blob: the port's data (one record per port;
//                   an active and a shadow port may share an id)
//
// BuildHostBlobView() works on the BlobTree that DecodeBlobTree() made, so
// nested lists are already decoded and checked.  A field or list that is
// malformed (a switchVersion that is not 4 bytes, a port value that is not
// a blob, ...) leaves its field unset and adds a line to `problems`; only a
// blob whose records are not switch blobs at all is refused.
#ifndef DVSCTL_HOST_BLOB_VIEW_H
#define DVSCTL_HOST_BLOB_VIEW_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "blob_tree.h"

namespace dvsctl {

struct PortView {
   std::string id;
   // From the port's "com.ostrel.common.port.volatile.type": "active",
   // "shadow", "zombie", "local-cache", "unknown(N)"; "active?" when the
   // data has no type (the blob does not carry it otherwise), "invalid"
   // when the value is not a u32.
   std::string type;
   std::optional<std::string> alias;  // "com.ostrel.common.port.alias"
   BlobTree data;
   std::vector<std::string> problems;
};

struct SwitchView {
   std::string id;
   // Unset when missing or malformed; `problems` says which.
   std::optional<uint32_t> version;
   std::optional<std::string> className;
   std::optional<uint32_t> maxPorts;
   std::optional<std::string> alias;  // "com.ostrel.common.alias", global list
   BlobTree global;
   BlobTree host;
   std::vector<PortView> ports;
   std::vector<std::string> problems;
   // For readers that need the whole switch (a comparison refuses a switch
   // with either): the fixed records it lacks, and the problem lines of
   // fixed records and port data present in a form that cannot be read.
   std::vector<std::string> missing;
   std::vector<std::string> unreadable;
};

struct HostBlobView {
   uint32_t length = 0;
   uint32_t checksum = 0;
   std::vector<SwitchView> switches;
};

// Reads `tree` as a host blob.  Returns false with `reason` set when a
// record is not a switch blob (its value is not a blob, or has no
// switchVersion).
bool BuildHostBlobView(const BlobTree &tree, HostBlobView &view, std::string &reason);

// Decodes `blob` and reads it as a host blob; a blob that does not decode,
// or is not a host blob, throws dvsctl::Error naming `name`.
HostBlobView ViewHostBlob(const Bytes &blob, const std::string &name);

// Per switch: a summary line, "global properties:", "host properties:"
// and "ports:" with the records as RenderText() shows them.
//
//   switch 5c 1a ...-... 04  class etherswitch  version 6  maxPorts 128  alias dvs-prod
//     global properties:
//       com.ostrel.common.alias  flag 0x00000020  len 9  "dvs-prod"
//     host properties:
//       (none)
//     ports:
//       10  shadow  alias web-01  2 properties
//         com.ostrel.common.port.alias  flag 0x00000020  len 7  "web-01"
std::string RenderHostText(const HostBlobView &view, const TextOptions &options = {});

// {"switches": [{"id", "className", "version", "maxPorts", "alias",
//   "global": [P...], "host": [P...],
//   "ports": [{"id", "type", "alias", "properties": [P...]}]}]}
// with P as in RenderJson(); unset fields are null, and a switch or port
// with problems carries "problems": [S...].
nlohmann::ordered_json RenderHostJson(const HostBlobView &view);

}  // namespace dvsctl

#endif  // DVSCTL_HOST_BLOB_VIEW_H

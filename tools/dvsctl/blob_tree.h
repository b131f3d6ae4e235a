// blob_tree.h -- a property blob decoded into a tree, and its renderings.
//
// DecodeBlobTree() runs the blob through the library and copies every
// record into a BlobTree.  A record's value becomes one of
//   - a nested BlobTree, when the value is itself a whole, valid blob
//     (it decodes and its header length equals the value length);
//   - text, when every byte is printable ASCII (one trailing NUL allowed
//     and dropped);
//   - raw bytes otherwise.
// RenderText() and RenderJson() turn the tree into dvsctl's output.
#ifndef DVSCTL_BLOB_TREE_H
#define DVSCTL_BLOB_TREE_H

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include <dvstypes.h>
#include <nlohmann/json.hpp>

#include "io.h"

namespace dvsctl {

struct Property;

struct BlobTree {
   uint32_t length = 0;    // from the header; equals the blob's size
   uint32_t checksum = 0;  // from the header
   // Records the library did not return: those whose flag is 0, which no
   // type mask can select.  Counted by walking the record lengths.
   uint32_t hidden = 0;
   std::vector<Property> properties;
};

struct Property {
   std::string name;
   uint32_t flag = 0;
   uint32_t length = 0;
   // Text (trailing NUL removed), raw bytes, or a nested blob.
   std::variant<std::string, Bytes, BlobTree> value;
   // A nested blob's bytes as stored; empty for the other forms, which
   // StoredValue() gives back from `value`.
   Bytes nestedBytes;
};

// The value's bytes exactly as the blob stores them, whatever its form.
Bytes StoredValue(const Property &p);

// Nested blobs deeper than this are shown as bytes, so that a crafted file
// cannot drive the decoder into unbounded recursion.
constexpr int kMaxBlobDepth = 32;

// Decodes `blob`.  Returns STATUS_OK and fills `tree`, or the library's
// status when the blob is not valid.
ReturnStatus DecodeBlobTree(const Bytes &blob, BlobTree &tree);

struct TextOptions {
   // Hex values longer than this many bytes are cut and end in "...";
   // 0 shows every byte.
   size_t hexLimit = 64;
};

// One header line, then one line per property; a nested blob's records
// follow its property, indented two more spaces.  Names are padded to the
// longest among their siblings; bytes outside printable ASCII in a name
// show as \xNN and a backslash as \\; a quoted text value escapes " and
// \ the same way.
//
//   blob: length 1088, 5 records, checksum 0x465fe0a8
//     switchVersion   flag 0x00000010  len   4  06 00 00 00
//     className       flag 0x00000010  len  12  "etherswitch"
//     globalPropList  flag 0x00000010  len 316  blob, 2 records, checksum 0x63c39c9d
//       com.ostrel.common.alias     flag 0x00000020  len 9  "dvs-demo"
std::string RenderText(const BlobTree &tree, const TextOptions &options = {});

// Just the record lines of RenderText(), the first level indented by
// `indent` spaces; for views that print a blob's records under headings of
// their own.
std::string RenderRecordLines(const BlobTree &tree, size_t indent, const TextOptions &options = {});

// A name as the text output shows it: bytes outside printable ASCII as
// \xNN, a backslash doubled.
std::string EscapeName(const std::string &name);

// The tree as JSON:
//   {"length": N, "checksum": N, "properties": [P...]}
// where each P is
//   {"name": S, "flag": N, "length": N, and exactly one of
//    "text": S          printable value, trailing NUL removed,
//    "hex": S           every byte as two lowercase hex digits, no gaps,
//    "properties": [P...]  a nested blob (with its own "checksum": N)}
// Numbers are plain JSON integers.  "hidden": N (records with flag 0 that
// are not listed) appears on a blob only when N is not 0.
nlohmann::ordered_json RenderJson(const BlobTree &tree);

// RenderJson() printed with two-space indents and a final newline.  Names
// come from the file and need not be valid UTF-8; bad sequences become
// U+FFFD instead of failing the whole output.
std::string RenderJsonText(const BlobTree &tree);

}  // namespace dvsctl

#endif  // DVSCTL_BLOB_TREE_H

// blob_command.cc -- the "dvsctl blob" command family.
#include "blob_command.h"

#include <iostream>
#include <memory>
#include <string>

#include <dvsstate.h>

#include "blob_tree.h"
#include "error.h"
#include "property_list.h"
#include "subcommands.h"

namespace dvsctl {
namespace {

// Flags of the sample's records: switch-level properties and the entries
// of its nested configuration lists.
constexpr uint32_t kSwitchProp = 0x10;
constexpr uint32_t kConfigProp = 0x20;

constexpr const char *kShowFooter =
   R"(Text output: a header line (length, record count, checksum), then one line
per property: name, flag, length and value.  A value is shown as "text"
when it is printable ASCII (a trailing NUL is dropped), as hex bytes
otherwise (first 64 bytes unless --full), and as its own indented records
when it is itself a complete property blob.

JSON output (--json):
  {"length": N, "checksum": N, "properties": [P, ...]}
  P = {"name": S, "flag": N, "length": N, plus one of
       "text": S                     printable value, trailing NUL dropped
       "hex": S                      every byte, two lowercase digits each
       "checksum": N, "properties": [P, ...]   nested blob}
  All numbers are decimal JSON integers.  A blob holding records with
  flag 0, which are not listed, also carries "hidden": N.)";

void RunShow(const ShowOptions &options) {
   const Bytes blob = ReadAll(options.path);
   BlobTree tree;
   const ReturnStatus status = DecodeBlobTree(blob, tree);
   if (status != STATUS_OK) {
      throw DecodeError(DisplayName(options.path), blob, status);
   }
   if (options.json) {
      std::cout << RenderJsonText(tree);
   } else {
      std::cout << RenderText(tree, options.Text());
   }
   FlushOutput(std::cout);
}

}  // namespace

Bytes MakeSampleBlob() {
   const Bytes global = PropertyListBuilder()
                           .AppendString("com.ostrel.common.alias", "dvs-demo", kConfigProp)
                           .AppendU32("com.ostrel.etherswitch.mtu", 9000, kConfigProp)
                           .Serialize();
   const Bytes host = PropertyListBuilder().Serialize();
   return PropertyListBuilder()
      .AppendU32(DVS_REC_SWITCH_VERSION, 6, kSwitchProp)
      .AppendString(DVS_REC_CLASS_NAME, "etherswitch", kSwitchProp)
      .AppendU32(DVS_REC_MAX_PORTS, 128, kSwitchProp)
      .Append(DVS_REC_GLOBAL_PROPS, global, kSwitchProp)
      .Append(DVS_REC_HOST_PROPS, host, kSwitchProp)
      .Serialize();
}

void AddBlobCommand(CLI::App &app) {
   CLI::App *blob = app.add_subcommand("blob", "Inspect and build property blobs");
   blob->require_subcommand(1);

   AddShowSubcommand(*blob, "Print the records of a property blob", kShowFooter, RunShow);
   AddMakeSampleSubcommand(*blob, "Write a small sample blob with nested lists",
                           [](const std::string &path) { WriteAll(path, MakeSampleBlob()); });
}

}  // namespace dvsctl

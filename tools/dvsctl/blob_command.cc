// blob_command.cc -- the "dvsctl blob" command family.
#include "blob_command.h"

#include <iostream>
#include <memory>
#include <string>

#include "blob_tree.h"
#include "error.h"
#include "property_list.h"

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

struct ShowOptions {
   std::string path;
   bool json = false;
   bool full = false;
};

void RunShow(const ShowOptions &options) {
   const Bytes blob = ReadAll(options.path);
   BlobTree tree;
   const ReturnStatus status = DecodeBlobTree(blob, tree);
   if (status != STATUS_OK) {
      throw Error(DisplayName(options.path) + ": cannot decode blob: " + DescribeStatus(status));
   }
   if (options.json) {
      std::cout << RenderJsonText(tree);
   } else {
      TextOptions text;
      if (options.full) {
         text.hexLimit = 0;
      }
      std::cout << RenderText(tree, text);
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
      .AppendU32("switchVersion", 6, kSwitchProp)
      .AppendString("className", "etherswitch", kSwitchProp)
      .AppendU32("maxPorts", 128, kSwitchProp)
      .Append("globalPropList", global, kSwitchProp)
      .Append("hostPropList", host, kSwitchProp)
      .Serialize();
}

void AddBlobCommand(CLI::App &app) {
   CLI::App *blob = app.add_subcommand("blob", "Inspect and build property blobs");
   blob->require_subcommand(1);

   auto show = std::make_shared<ShowOptions>();
   CLI::App *showCmd = blob->add_subcommand("show", "Print the records of a property blob");
   showCmd->add_option("file", show->path, "Blob file, or - to read standard input")
      ->required()
      ->type_name("FILE|-");
   showCmd->add_flag("--json", show->json, "Print JSON instead of text");
   showCmd->add_flag("--full", show->full, "Do not shorten long hex values");
   showCmd->footer(kShowFooter);
   showCmd->callback([show] { RunShow(*show); });

   auto samplePath = std::make_shared<std::string>();
   CLI::App *sampleCmd =
      blob->add_subcommand("make-sample", "Write a small sample blob with nested lists");
   sampleCmd->add_option("file", *samplePath, "Output file, or - for standard output")
      ->required()
      ->type_name("FILE|-");
   sampleCmd->callback([samplePath] { WriteAll(*samplePath, MakeSampleBlob()); });
}

}  // namespace dvsctl

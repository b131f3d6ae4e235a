// subcommands.cc -- shared argument shapes of dvsctl's command groups.
#include "subcommands.h"

#include <memory>
#include <utility>

namespace dvsctl {

void AddShowSubcommand(CLI::App &group, const std::string &description, const std::string &footer,
                       std::function<void(const ShowOptions &)> run, ShowInput input) {
   auto options = std::make_shared<ShowOptions>();
   CLI::App *cmd = group.add_subcommand("show", description);
   if (input == ShowInput::kFileOrStdin) {
      cmd->add_option("file", options->path, "Blob file, or - to read standard input")
         ->required()
         ->type_name("FILE|-");
   } else if (input == ShowInput::kFile) {
      cmd->add_option("file", options->path, "File to read")->required()->type_name("FILE");
   }
   cmd->add_flag("--json", options->json, "Print JSON instead of text");
   cmd->add_flag("--full", options->full, "Do not shorten long hex values");
   cmd->footer(footer);
   cmd->callback([options, run = std::move(run)] { run(*options); });
}

void AddMakeSampleSubcommand(CLI::App &group, const std::string &description,
                             std::function<void(const std::string &path)> run) {
   auto path = std::make_shared<std::string>();
   CLI::App *cmd = group.add_subcommand("make-sample", description);
   cmd->add_option("file", *path, "Output file, or - for standard output")
      ->required()
      ->type_name("FILE|-");
   cmd->callback([path, run = std::move(run)] { run(*path); });
}

void AddDiffOutput(CLI::App &cmd, bool &json, bool &summary, const std::string &footer,
                   std::function<void()> run) {
   cmd.add_flag("--json", json, "Print JSON instead of text");
   cmd.add_flag("--summary", summary, "Leave out the documented differences, keep the summary");
   cmd.footer(footer);
   cmd.callback(std::move(run));
}

}  // namespace dvsctl

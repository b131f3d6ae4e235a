// subcommands.h -- the argument shapes that several dvsctl command groups
// share: "show [FILE|-] [--json] [--full]", "make-sample FILE|-" and the
// output flags of the host comparisons.
#ifndef DVSCTL_SUBCOMMANDS_H
#define DVSCTL_SUBCOMMANDS_H

#include <functional>
#include <string>

#include <CLI/CLI.hpp>

#include "blob_tree.h"

namespace dvsctl {

struct ShowOptions {
   std::string path;
   bool json = false;
   bool full = false;

   // The text rendering options these flags ask for.
   TextOptions Text() const {
      TextOptions text;
      if (full) {
         text.hexLimit = 0;
      }
      return text;
   }
};

// What "show" reads: a file or standard input, a file only (a path the
// library opens itself), or nothing (the data comes from elsewhere and
// ShowOptions::path stays empty).
enum class ShowInput { kFileOrStdin, kFile, kNone };

// Adds "show" with --json and --full under `group`.
void AddShowSubcommand(CLI::App &group, const std::string &description, const std::string &footer,
                       std::function<void(const ShowOptions &)> run,
                       ShowInput input = ShowInput::kFileOrStdin);

// Adds "make-sample FILE|-" under `group`.
void AddMakeSampleSubcommand(CLI::App &group, const std::string &description,
                             std::function<void(const std::string &path)> run);

// Adds the host comparisons' output flags, --json and --summary, to `cmd`
// with their footer; `run` is called when the command is chosen.
void AddDiffOutput(CLI::App &cmd, bool &json, bool &summary, const std::string &footer,
                   std::function<void()> run);

}  // namespace dvsctl

#endif  // DVSCTL_SUBCOMMANDS_H

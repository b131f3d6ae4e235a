// store_state_command.cc -- "store save", "store save-blob", "store load",
// "store restore" and "store upgrade".
//
// These go through libdvs's store mapping (dvsconfigstore.h), which turns
// a host configuration blob into one store object per switch and back.  The
// mapping prints its messages on standard output, gated by
// dvsconfigstore_debug; while a command runs it they are sent to standard
// error instead (failures only, progress too with --verbose), so that what
// the command prints itself, a blob or JSON, stays clean.
#include "store_state_command.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <configstore.h>
#include <dvsconfigstore.h>
#include <dvsfile.h>
#include <dvshyp.h>

#include "error.h"
#include "host_blob_view.h"
#include "io.h"
#include "property_list.h"
#include "state_command.h"
#include "state_file.h"
#include "store_error.h"
#include "subcommands.h"

namespace dvsctl {
namespace {

namespace cs = configstore;

constexpr const char *kPortsetProp = "com.ostrel.common.host.portset";
constexpr const char *kStateFileEnv = "DVS_STATE_FILE";

constexpr const char *kSaveFooter =
   R"(Writes the persistent part of the kernel's switch state (as "kernel
persist" writes it to the state file) into the store: one object per
switch, in one transaction.  Without --switch, the objects of switches the
kernel no longer holds are deleted; with it, only that switch is written,
and its object is deleted when the kernel has no such switch.)";

constexpr const char *kSaveBlobFooter =
   R"(As "store save", from a host configuration blob file (what "state
make-sample" or "blob" commands write) instead of the kernel.)";

constexpr const char *kLoadFooter =
   R"(Builds a host configuration blob from every switch object of the store
(with --desired, from the desired user configuration) and prints it as
"dvsctl state show" prints one, or with -o writes the blob itself.  What
the store does not keep comes back changed: every property flag is 0x10,
a switch without an alias gets one, booleans kept as text come
back as "true" or "false", and the properties come in the order of the
store mapping's tables.)";

constexpr const char *kRestoreFooter =
   R"(Builds the host configuration blob as "store load" does and loads it
into the kernel (DVSHYP_StateInit), replacing the kernel's whole switch
state: a host restored from its configuration store alone.)";

constexpr const char *kUpgradeFooter =
   R"(Writes the identity (id, name, port limit) and port-set name of every
switch of the state file that has a port-set name into the store, as a
host does once when it starts keeping its switches there.  The state file
is /etc/ostrel/dvsdata.db, the one DVS_STATE_FILE names, or FILE.  A
missing or empty state file carries nothing over and is not an error.)";

// What the mapping answers for a failure of its own rather than the store's.
constexpr int32_t kMappingFailure = -1;

// Checks what a call of the store mapping returned.  For a failure of its
// own the mapping's messages (on standard error by then) say which step
// failed, but one that could not open the store does not say why: the
// store is opened once more here to name the reason.
void CheckMappingCode(int32_t code, const std::string &what) {
   if (code != kMappingFailure) {
      CheckStoreCode(code, what);
      return;
   }
   std::string why = what + ": the store mapping failed (code -1)";
   cs::Store *probe = nullptr;
   const int32_t opened = cs::GetStore(0, &probe);
   if (opened == cs::kSuccess) {
      cs::DestroyStore(probe);
   } else {
      why += ": cannot open the configuration store: " + DescribeStoreCode(opened, true);
   }
   throw Error(why);
}

std::string DatabasePath() {
   const char *path = std::getenv(cs::kPathEnv);
   return path != nullptr && *path != '\0' ? path : cs::kDefaultPath;
}

// Sends the mapping's messages to standard error for the guard's lifetime.
class LibraryMessages {
  public:
   explicit LibraryMessages(bool verbose) : level_(dvsconfigstore_debug) {
      std::cout.flush();
      std::fflush(stdout);
      // Failures at 0 and above, progress above 0.
      dvsconfigstore_debug = verbose ? 10 : 0;
      savedStdout_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
      if (savedStdout_ >= 0 && dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
         close(savedStdout_);
         savedStdout_ = -1;
      }
   }
   ~LibraryMessages() {
      std::fflush(stdout);
      if (savedStdout_ >= 0) {
         dup2(savedStdout_, STDOUT_FILENO);
         close(savedStdout_);
      }
      dvsconfigstore_debug = level_;
   }
   LibraryMessages(const LibraryMessages &) = delete;
   LibraryMessages &operator=(const LibraryMessages &) = delete;

  private:
   int32_t level_;
   int savedStdout_ = -1;
};

std::string Switches(size_t n) {
   return std::to_string(n) + (n == 1 ? " switch" : " switches");
}

std::string JoinIds(const std::vector<std::string> &ids) {
   std::string out;
   for (const std::string &id : ids) {
      out += (out.empty() ? "" : ", ") + id;
   }
   return out;
}

// The ids ("uuid") of the store's switch objects, in creation order.
std::vector<std::string> StoredSwitchIds() {
   const std::unique_ptr<cs::Store, decltype(&cs::DestroyStore)> store(OpenConfigStore(),
                                                                       &cs::DestroyStore);
   cs::FilterSpec *rawFilter = nullptr;
   CheckStoreCode(cs::CreateFilterSpecObject("switches", "network_tds", "node", "", &rawFilter),
                  "cannot list the switch objects");
   const std::unique_ptr<cs::FilterSpec, decltype(&cs::DestroyFilterSpecObject)> filter(
      rawFilter, &cs::DestroyFilterSpecObject);
   cs::Object **objects = nullptr;
   uint32_t count = 0;
   CheckStoreCode(cs::GetInstances(store.get(), filter.get(), &objects, &count),
                  "cannot list the switch objects");
   std::vector<std::string> ids;
   for (uint32_t i = 0; i < count; i++) {
      char *uuid = nullptr;
      if (cs::GetValueStr(objects[i], "uuid", &uuid) == cs::kSuccess) {
         ids.emplace_back(uuid);
         std::free(uuid);
      }
      cs::DestroyConfigStoreObject(objects[i]);
   }
   std::free(objects);
   return ids;
}

// What a save from `source` (the kernel, a blob) left in the store, in one
// line.
void PrintSaved(const std::string &swId, const std::string &source) {
   const std::vector<std::string> ids = StoredSwitchIds();
   std::cout << DatabasePath() << ": ";
   if (swId.empty()) {
      std::cout << Switches(ids.size()) << " stored" << (ids.empty() ? "" : ": ") << JoinIds(ids)
                << '\n';
   } else {
      bool stored = false;
      for (const std::string &id : ids) {
         stored = stored || id == swId;
      }
      std::cout << "switch " << swId;
      if (stored) {
         std::cout << " stored\n";
      } else {
         std::cout << " is not in " << source << ": the store holds no object for it\n";
      }
   }
   FlushOutput(std::cout);
}

void RunSave(const std::string &swId, bool verbose) {
   int32_t rc;
   {
      LibraryMessages messages(verbose);
      rc = swId.empty() ? DVSState_SaveToConfigStore()
                        : DVSState_SaveToConfigStore_ByInstance(swId.c_str());
   }
   CheckMappingCode(rc, "cannot save the kernel state to the configuration store");
   PrintSaved(swId, "the kernel");
}

void RunSaveBlob(const std::string &path, const std::string &swId, bool verbose) {
   const Bytes blob = ReadAll(path);
   // Checked here first: the library refuses a bad blob with a bare -1.
   ViewHostBlob(blob, DisplayName(path));
   int32_t rc;
   {
      LibraryMessages messages(verbose);
      const auto len = static_cast<uint32_t>(blob.size());
      rc = swId.empty() ? DVSState_SaveBufToConfigStore(blob.data(), len)
                        : DVSState_SaveBufToConfigStore_ByInstance(blob.data(), len, swId.c_str());
   }
   CheckMappingCode(rc, DisplayName(path) + ": cannot save to the configuration store");
   PrintSaved(swId, DisplayName(path));
}

// The host blob built from the store.
Bytes LoadHostBlob(bool desired, bool verbose) {
   void *buf = nullptr;
   uint32_t len = 0;
   int32_t rc;
   {
      LibraryMessages messages(verbose);
      rc = DVSState_LoadFromConfigStoreAsBuf(&buf, &len, desired);
   }
   const std::unique_ptr<void, decltype(&std::free)> owned(buf, &std::free);
   const std::string what = std::string("cannot build the host blob from the ") +
                            (desired ? "desired configuration" : "configuration store");
   CheckMappingCode(rc, what);
   if (buf == nullptr) {
      throw Error(what + ": the store gave no blob");
   }
   const auto *bytes = static_cast<const uint8_t *>(buf);
   return Bytes(bytes, bytes + len);
}

struct LoadArgs {
   ShowOptions show;
   std::string output;
   bool desired = false;
   bool verbose = false;
};

void RunLoad(const LoadArgs &args) {
   const Bytes blob = LoadHostBlob(args.desired, args.verbose);
   const std::string name = args.desired ? "desired configuration" : "configuration store";
   if (args.output.empty()) {
      PrintHostBlob(blob, name, args.show);
      return;
   }
   const size_t switches = ViewHostBlob(blob, name).switches.size();
   WriteAll(args.output, blob);
   if (args.output != "-") {
      std::cout << args.output << ": " << blob.size() << " bytes written (host blob of "
                << Switches(switches) << ")\n";
      FlushOutput(std::cout);
   }
}

void RunRestore(bool desired, bool verbose) {
   const Bytes blob = LoadHostBlob(desired, verbose);
   const std::string source = desired ? "the desired configuration" : "the configuration store";
   const size_t switches = ViewHostBlob(blob, source).switches.size();
   CheckStatus(DVSHYP_StateInit(blob.data(), static_cast<uint32_t>(blob.size())),
               "cannot load the host blob from " + source + " into the kernel");
   std::cout << "kernel state replaced: " << Switches(switches) << " from " << source << '\n';
   FlushOutput(std::cout);
}

void RunUpgrade(const std::string &stateFile, bool verbose) {
   if (!stateFile.empty()) {
      setenv(kStateFileEnv, stateFile.c_str(), 1);
   }
   const char *env = std::getenv(kStateFileEnv);
   const std::string path = env != nullptr && *env != '\0' ? env : DVSFILE_DEFAULT_PATH;

   // What the upgrade will find, read first so that a damaged file is
   // reported rather than skipped as the library does.
   struct stat st {};
   const bool present = stat(path.c_str(), &st) == 0 && st.st_size > 0;
   size_t switches = 0;
   std::vector<std::string> carried;
   if (present) {
      const HostBlobView view = ViewHostBlob(ReadStateFileBlob(path), path);
      switches = view.switches.size();
      for (const SwitchView &sw : view.switches) {
         for (const Property &prop : sw.host.properties) {
            if (prop.name == kPortsetProp) {
               carried.push_back(sw.id);
               break;
            }
         }
      }
   }
   int32_t rc;
   {
      LibraryMessages messages(verbose);
      rc = DVSState_RetrieveDVSUpgradeInfo();
   }
   CheckMappingCode(rc, path + ": cannot carry the switches over into the configuration store");
   std::cout << path << ": ";
   if (!present) {
      std::cout << "no state file, or an empty one: nothing to carry over\n";
   } else {
      std::cout << Switches(switches) << ", " << carried.size()
                << " with a port-set name written to the configuration store"
                << (carried.empty() ? "" : ": ") << JoinIds(carried) << '\n';
   }
   FlushOutput(std::cout);
}

void AddVerbose(CLI::App *cmd, bool &verbose) {
   cmd->add_flag("-v,--verbose", verbose, "Show the store mapping's progress lines on stderr");
}

}  // namespace

void AddStoreStateSubcommands(CLI::App &store) {
   struct SaveArgs {
      std::string path;
      std::string swId;
      bool verbose = false;
   };
   auto save = std::make_shared<SaveArgs>();
   CLI::App *saveCmd =
      store.add_subcommand("save", "Save the kernel's persistent switch state into the store");
   saveCmd->add_option("--switch", save->swId, "Save only this switch")->type_name("ID");
   AddVerbose(saveCmd, save->verbose);
   saveCmd->footer(kSaveFooter);
   saveCmd->callback([save] { RunSave(save->swId, save->verbose); });

   auto saveBlob = std::make_shared<SaveArgs>();
   CLI::App *saveBlobCmd =
      store.add_subcommand("save-blob", "Save the switches of a host blob file into the store");
   saveBlobCmd->add_option("file", saveBlob->path, "Host blob file, or - to read standard input")
      ->required()
      ->type_name("FILE|-");
   saveBlobCmd->add_option("--switch", saveBlob->swId, "Save only this switch")->type_name("ID");
   AddVerbose(saveBlobCmd, saveBlob->verbose);
   saveBlobCmd->footer(kSaveBlobFooter);
   saveBlobCmd->callback(
      [saveBlob] { RunSaveBlob(saveBlob->path, saveBlob->swId, saveBlob->verbose); });

   auto load = std::make_shared<LoadArgs>();
   CLI::App *loadCmd = store.add_subcommand("load", "Build the host blob from the store");
   loadCmd->add_flag("--desired", load->desired, "From the desired user configuration");
   loadCmd->add_option("-o,--output", load->output, "Write the blob to FILE (- for stdout)")
      ->type_name("FILE|-");
   loadCmd->add_flag("--json", load->show.json, "Print JSON instead of text");
   loadCmd->add_flag("--full", load->show.full, "Do not shorten long hex values");
   AddVerbose(loadCmd, load->verbose);
   loadCmd->footer(kLoadFooter);
   loadCmd->callback([load] { RunLoad(*load); });

   struct RestoreArgs {
      bool desired = false;
      bool verbose = false;
   };
   auto restore = std::make_shared<RestoreArgs>();
   CLI::App *restoreCmd = store.add_subcommand(
      "restore", "Replace the kernel's switch state with the one built from the store");
   restoreCmd->add_flag("--desired", restore->desired, "From the desired user configuration");
   AddVerbose(restoreCmd, restore->verbose);
   restoreCmd->footer(kRestoreFooter);
   restoreCmd->callback([restore] { RunRestore(restore->desired, restore->verbose); });

   auto upgrade = std::make_shared<SaveArgs>();
   CLI::App *upgradeCmd =
      store.add_subcommand("upgrade", "Carry the switches of the state file over into the store");
   upgradeCmd->add_option("--state-file", upgrade->path, "State file to read")->type_name("FILE");
   AddVerbose(upgradeCmd, upgrade->verbose);
   upgradeCmd->footer(kUpgradeFooter);
   upgradeCmd->callback([upgrade] { RunUpgrade(upgrade->path, upgrade->verbose); });
}

Bytes LoadStoreHostBlob(bool desired, bool verbose) {
   return LoadHostBlob(desired, verbose);
}

}  // namespace dvsctl

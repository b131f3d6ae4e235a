// state_command.cc -- the "dvsctl state" command family.
#include "state_command.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include <dvshyp.h>
#include <dvsstate.h>

#include "blob_tree.h"
#include "error.h"
#include "host_blob_view.h"
#include "kernel_command.h"
#include "property_list.h"
#include "state_diff.h"
#include "subcommands.h"

namespace dvsctl {
namespace {

constexpr uint32_t kConfigProp = 0x20;

// The sample's switches: one registered by UUID text, one by a plain name.
constexpr const char *kProdSwitch = "5c 1a 30 e2 7b 44 4f 0d-9a 61 c8 22 3e 10 b7 04";
constexpr const char *kLabSwitch = "lab-0";

constexpr const char *kShowFooter =
   R"(A host configuration blob holds one switch blob per switch, named by the
switch id.  Each switch is shown as a summary line (class, version, port
limit, alias), its global and host properties, and its ports: id, type,
alias and number of properties, then the port's properties.  A port's
type travels only in its "com.ostrel.common.port.volatile.type" property;
a port without one is shown as "active?".  Fields that are malformed are
shown as <invalid>, with a "problem:" line saying why.  Property values
are shown as "dvsctl blob show" shows them.

JSON output (--json):
  {"switches": [{"id": S, "className": S, "version": N, "maxPorts": N,
                 "alias": S, "global": [P, ...], "host": [P, ...],
                 "ports": [{"id": S, "type": S, "alias": S,
                            "properties": [P, ...]}, ...]}, ...]}
  with P as in "dvsctl blob show --json"; an unset field is null, and a
  switch or port with problems also carries "problems": [S, ...].)";

constexpr const char *kDiffFooter =
   R"(Compares two hosts' switch state switch by switch, port by port and
property by property; structured values (teaming, LACP, private VLANs,
mirror sessions, IPFIX, link discovery, health checks, port VLAN, shaping,
security, name lists) field by field.  A or B is "kernel" (the kernel's
state), a host blob file or a state file.  Each difference is "documented"
when it is a known conversion of a save to the configuration store and a
load back (the summary lists them with their reasons), else "unexpected".
Exit status 1 when there is an unexpected difference.)";

struct DiffArgs {
   std::string before;
   std::string after;
   bool json = false;
   bool summary = false;
};

// The host blob `source` names: the kernel's state, or the blob of a file
// (a state file's padding cut off).
Bytes HostBlobOf(const std::string &source) {
   if (source == "kernel") {
      void *buf = nullptr;
      uint32_t len = 0;
      const ReturnStatus status = DVSHYP_StateGet(&buf, &len);
      Bytes state = TakeKernelData(buf, status == STATUS_OK ? len : 0);
      CheckStatus(status, "cannot get the kernel state");
      return state;
   }
   Bytes data = ReadAll(source);
   uint32_t length = 0;
   if (data.size() >= sizeof length) {
      std::memcpy(&length, data.data(), sizeof length);
      const bool padded =
         length >= sizeof length && length < data.size() &&
         std::all_of(data.begin() + length, data.end(), [](uint8_t b) { return b == 0; });
      if (padded) {
         data.resize(length);
      }
   }
   return data;
}

void RunDiff(const DiffArgs &args) {
   const HostState before = ReadHostState(HostBlobOf(args.before), DisplayName(args.before));
   const HostState after = ReadHostState(HostBlobOf(args.after), DisplayName(args.after));
   const DiffReport report = DiffHosts(before, after);
   if (args.json) {
      std::cout << RenderDiffJson(report, args.summary)
                      .dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
                << '\n';
   } else {
      std::cout << RenderDiffText(report, args.summary);
   }
   FlushOutput(std::cout);
   if (report.summary.unexpected != 0) {
      throw Error(std::to_string(report.summary.unexpected) + " unexpected difference" +
                  (report.summary.unexpected == 1 ? "" : "s") + " between " + args.before +
                  " and " + args.after);
   }
}

void RunShow(const ShowOptions &options) {
   PrintHostBlob(ReadAll(options.path), DisplayName(options.path), options);
}

// Empties the process-wide registry when the sample is done with it,
// whether or not it was completed.
struct RegistryReset {
   RegistryReset() = default;
   RegistryReset(const RegistryReset &) = delete;
   RegistryReset &operator=(const RegistryReset &) = delete;
   ~RegistryReset() { DVSState_ConfigReset(); }
};

// Port data: the alias, and the type when it should show in the blob
// (type 0: leave it out).
PropertyListBuilder PortData(const char *alias, uint32_t type) {
   PropertyListBuilder data;
   data.AppendString(DVS_PROP_PORT_ALIAS, alias, kConfigProp);
   if (type != 0) {
      data.AppendU32(DVS_PROP_PORT_TYPE, type, kConfigProp);
   }
   return data;
}

std::string PortName(const char *swId, const char *portId) {
   return std::string("port ") + portId + " of switch " + swId;
}

void AddSwitch(const char *id, const char *className, uint32_t maxPorts, uint32_t version,
               const char *alias) {
   CheckStatus(DVSState_SwitchAdd(id, className, maxPorts, version),
               std::string("cannot add switch ") + id);
   CheckStatus(DVSState_GlobalPropSet(id, DVS_PROP_SWITCH_ALIAS, alias,
                                      static_cast<uint32_t>(std::strlen(alias) + 1), kConfigProp),
               std::string("cannot set the alias of switch ") + id);
}

void SetU32(ReturnStatus (*set)(const char *, const char *, const void *, uint32_t, uint32_t),
            const char *swId, const char *name, uint32_t value) {
   CheckStatus(set(swId, name, &value, sizeof value, kConfigProp),
               std::string("cannot set ") + name + " on switch " + swId);
}

void SetText(ReturnStatus (*set)(const char *, const char *, const void *, uint32_t, uint32_t),
             const char *swId, const char *name, const char *value) {
   CheckStatus(set(swId, name, value, static_cast<uint32_t>(std::strlen(value) + 1), kConfigProp),
               std::string("cannot set ") + name + " on switch " + swId);
}

// A port that is added owns its data list from then on; after a failed
// add the list is still ours and is freed here.
void AddPort(ReturnStatus (*add)(const char *, const char *, DVSDataHandle), const char *swId,
             const char *portId, PropertyListBuilder data) {
   ListPtr list = data.Release();
   CheckStatus(add(swId, portId, list.get()), "cannot add " + PortName(swId, portId));
   list.release();
}

void AddShadowPort(const char *swId, const char *portId, const PropertyListBuilder &data) {
   const Bytes blob = data.Serialize();
   CheckStatus(
      DVSState_PortAddShadow(swId, portId, blob.data(), static_cast<uint32_t>(blob.size())),
      "cannot add shadow " + PortName(swId, portId));
}

// Zombie ports have no add call of their own: they go through the
// switch-level add, under the registry lock.
void AddZombiePort(const char *swId, const char *portId, PropertyListBuilder data) {
   struct Lock {
      KRecLock *held = DVSwitchHandleLock();
      ~Lock() { DVSwitchHandleUnlock(held); }
   } lock;
   DVSwitch *dvs = DVSState_SwitchFind(swId);
   if (dvs == nullptr) {
      CheckStatus(STATUS_NOT_FOUND, std::string("cannot find switch ") + swId);
   }
   ListPtr list = data.Release();
   CheckStatus(DVSStatePortAdd(dvs, portId, list.get(), DVS_PORT_ZOMBIE, nullptr),
               "cannot add zombie " + PortName(swId, portId));
   list.release();
}

void RunMakeSample(const std::string &path) {
   WriteAll(path, MakeSampleHostBlob());
}

}  // namespace

void PrintHostBlob(const Bytes &blob, const std::string &name, const ShowOptions &options) {
   const HostBlobView view = ViewHostBlob(blob, name);
   if (options.json) {
      std::cout << RenderHostJson(view).dump(2, ' ', false,
                                             nlohmann::ordered_json::error_handler_t::replace)
                << '\n';
   } else {
      std::cout << RenderHostText(view, options.Text());
   }
   FlushOutput(std::cout);
}

Bytes MakeSampleHostBlob() {
   RegistryReset reset;

   // An etherswitch may use every port the host allows: the registry keeps
   // the host's limit rather than the 128 asked for here.
   AddSwitch(kProdSwitch, "etherswitch", 128, 6, "dvs-prod");
   SetU32(DVSState_GlobalPropSet, kProdSwitch, "com.ostrel.etherswitch.mtu", 9000);
   SetText(DVSState_HostPropSet, kProdSwitch, "com.ostrel.etherswitch.uplinks", "eth0,eth1");
   // Port 10 is active here and has a shadow copy; the active one carries
   // no type property, as ports usually do not.
   PropertyListBuilder web = PortData("web-01", 0);
   web.AppendU32("com.ostrel.etherswitch.vlan", 20, kConfigProp);
   AddPort(DVSState_PortAdd, kProdSwitch, "10", std::move(web));
   AddShadowPort(kProdSwitch, "10", PortData("web-01", DVS_PORT_SHADOW));
   AddPort(DVSState_PortAdd, kProdSwitch, "11", PortData("db-01", DVS_PORT_ACTIVE));
   AddZombiePort(kProdSwitch, "12", PortData("old-vm", DVS_PORT_ZOMBIE));

   AddSwitch(kLabSwitch, "labswitch", 16, 100, "dvs-lab");
   SetText(DVSState_HostPropSet, kLabSwitch, "com.ostrel.labswitch.vlan-range", "100-199");
   AddPort(DVSState_PortAdd, kLabSwitch, "1", PortData("probe-a", DVS_PORT_ACTIVE));
   AddPort(DVSState_LocalCachePortAdd, kLabSwitch, "2", PortData("probe-b", DVS_PORT_LOCAL_CACHE));

   void *raw = nullptr;
   uint32_t len = 0;
   const ReturnStatus status = DVSState_ConfigSerialize(&raw, &len);
   const std::unique_ptr<void, decltype(&std::free)> blob(raw, &std::free);
   CheckStatus(status, "cannot serialize the registry");
   const auto *bytes = static_cast<const uint8_t *>(blob.get());
   return bytes != nullptr ? Bytes(bytes, bytes + len) : Bytes{};
}

void AddStateCommand(CLI::App &app) {
   CLI::App *state =
      app.add_subcommand("state", "Inspect and build host configuration blobs of switch state");
   state->require_subcommand(1);

   AddShowSubcommand(*state, "Print a host configuration blob as switches and ports", kShowFooter,
                     RunShow);
   AddMakeSampleSubcommand(*state,
                           "Build a small switch registry and write its host configuration blob",
                           [](const std::string &path) { RunMakeSample(path); });

   auto diff = std::make_shared<DiffArgs>();
   CLI::App *diffCmd =
      state->add_subcommand("diff", "Compare two hosts' switch state, classifying each difference");
   diffCmd->add_option("a", diff->before, "kernel, or a host blob or state file")
      ->required()
      ->type_name("A");
   diffCmd->add_option("b", diff->after, "kernel, or a host blob or state file")
      ->required()
      ->type_name("B");
   AddDiffOutput(*diffCmd, diff->json, diff->summary, kDiffFooter, [diff] { RunDiff(*diff); });
}

}  // namespace dvsctl

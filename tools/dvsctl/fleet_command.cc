// fleet_command.cc -- "dvsctl fleet hosts" and "dvsctl fleet diff".
//
// The store lists its hosts (configstore::GetHosts); a host's switches are
// read by opening the store in that host's namespace (CONFIGSTORE_HOST,
// which the library reads at every open) and building its host blob, the
// same way "store load" does for the local host.
#include "fleet_command.h"

#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <configstore.h>
#include <nlohmann/json.hpp>

#include "error.h"
#include "state_diff.h"
#include "store_error.h"
#include "store_state_command.h"
#include "subcommands.h"

namespace dvsctl {
namespace {

namespace cs = configstore;

constexpr const char *kFleetFooter =
   R"(The store is the one CONFIGSTORE_URL names (etcd://HOST:PORT[,...]/PREFIX
for a cluster shared by many hosts; unset, the local SQLite file, which
holds one host).)";

constexpr const char *kDiffFooter =
   R"(With one host, compares its live state with its desired configuration;
with two, the first host's live state with the second's.  Differences are
classified as "store state diff" does.  Exit status 1 when there is an
unexpected difference.)";

// Runs `body` with CONFIGSTORE_HOST set to `host`, putting it back after.
template <typename Body>
auto AsHost(const std::string &host, Body &&body) {
   const char *old = std::getenv(cs::kHostEnv);
   const std::optional<std::string> saved = old ? std::optional<std::string>(old) : std::nullopt;
   struct Restore {
      const std::optional<std::string> &saved;
      ~Restore() { saved ? setenv(cs::kHostEnv, saved->c_str(), 1) : unsetenv(cs::kHostEnv); }
   } restore{saved};
   setenv(cs::kHostEnv, host.c_str(), 1);
   return body();
}

HostState HostLive(const std::string &host, bool desired) {
   return AsHost(host, [&] {
      return ReadHostState(LoadStoreHostBlob(desired, false),
                           host + (desired ? " (desired)" : " (live)"));
   });
}

struct HostRow {
   std::string name;
   int64_t savedAt = 0;
   HostState state;
};

std::vector<HostRow> ListHosts() {
   std::unique_ptr<cs::Store, void (*)(cs::Store *)> store(OpenConfigStore(), cs::DestroyStore);
   cs::HostInfo *hosts = nullptr;
   uint32_t count = 0;
   CheckStoreCode(cs::GetHosts(store.get(), &hosts, &count), "cannot list the store's hosts");
   std::vector<HostRow> rows;
   try {
      for (uint32_t i = 0; i < count; i++) {
         rows.push_back(HostRow{hosts[i].name, hosts[i].savedAt, {}});
      }
   } catch (...) {
      cs::DestroyHostList(hosts, count);
      throw;
   }
   cs::DestroyHostList(hosts, count);
   store.reset();
   for (HostRow &row : rows) {
      row.state = HostLive(row.name, false);
   }
   return rows;
}

std::string UtcText(int64_t seconds) {
   if (seconds <= 0) {
      return "-";
   }
   const std::time_t t = static_cast<std::time_t>(seconds);
   std::tm tm{};
   gmtime_r(&t, &tm);
   std::ostringstream out;
   out << std::put_time(&tm, "%Y-%m-%dT%H:%M:%SZ");
   return out.str();
}

size_t PortCount(const HostState &state) {
   size_t n = 0;
   for (const HostSwitch &sw : state.switches) {
      n += sw.ports.size();
   }
   return n;
}

void RunHosts(bool json) {
   const std::vector<HostRow> rows = ListHosts();
   if (json) {
      nlohmann::ordered_json out = nlohmann::ordered_json::array();
      for (const HostRow &row : rows) {
         nlohmann::ordered_json switches = nlohmann::ordered_json::array();
         for (const HostSwitch &sw : row.state.switches) {
            switches.push_back(
               {{"id", sw.id}, {"class", sw.className}, {"ports", sw.ports.size()}});
         }
         out.push_back({{"host", row.name},
                        {"savedAt", row.savedAt},
                        {"savedAtUtc", UtcText(row.savedAt)},
                        {"switches", std::move(switches)},
                        {"ports", PortCount(row.state)}});
      }
      std::cout << out.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
                << '\n';
      return;
   }
   std::cout << std::left << std::setw(20) << "HOST" << std::setw(22) << "SAVED" << std::setw(10)
             << "SWITCHES"
             << "PORTS\n";
   for (const HostRow &row : rows) {
      std::cout << std::left << std::setw(20) << row.name << std::setw(22) << UtcText(row.savedAt)
                << std::setw(10) << row.state.switches.size() << PortCount(row.state) << '\n';
      for (const HostSwitch &sw : row.state.switches) {
         std::cout << "  " << sw.id << "  " << sw.className << "  " << sw.ports.size()
                   << " ports\n";
      }
   }
}

struct DiffArgs {
   std::string host;
   std::string other;
   bool json = false;
   bool summary = false;
};

void RunDiff(const DiffArgs &args) {
   const HostState before = HostLive(args.host, false);
   const HostState after =
      args.other.empty() ? HostLive(args.host, true) : HostLive(args.other, false);
   const DiffReport report = DiffHosts(before, after);
   if (args.json) {
      std::cout << RenderDiffJson(report, args.summary)
                      .dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
                << '\n';
   } else {
      std::cout << RenderDiffText(report, args.summary);
   }
   std::cout.flush();
   if (report.summary.unexpected != 0) {
      throw Error(std::to_string(report.summary.unexpected) + " unexpected difference" +
                  (report.summary.unexpected == 1 ? "" : "s") + " between " + args.host +
                  (args.other.empty() ? " live and desired" : " and " + args.other));
   }
}

}  // namespace

void AddFleetCommand(CLI::App &app) {
   CLI::App *fleet = app.add_subcommand("fleet", "The hosts that share one configuration store");
   fleet->require_subcommand(1);
   fleet->footer(kFleetFooter);

   auto hostsJson = std::make_shared<bool>(false);
   CLI::App *hosts =
      fleet->add_subcommand("hosts", "List the hosts with their switches and last save");
   hosts->add_flag("--json", *hostsJson, "Print JSON instead of text");
   hosts->callback([hostsJson] { RunHosts(*hostsJson); });

   auto diff = std::make_shared<DiffArgs>();
   CLI::App *diffCmd = fleet->add_subcommand(
      "diff", "Compare a host's live state with its desired one, or with another host's");
   diffCmd->add_option("host", diff->host, "Host whose live state is compared")->required();
   diffCmd->add_option("other", diff->other, "Host whose live state it is compared with");
   AddDiffOutput(*diffCmd, diff->json, diff->summary, kDiffFooter, [diff] { RunDiff(*diff); });
}

}  // namespace dvsctl

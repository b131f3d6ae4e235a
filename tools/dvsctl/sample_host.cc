// sample_host.cc -- a realistic host's switch state, built in-process.
#include "sample_host.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <dvsstate.h>

#include "configstore/property_layouts.h"
#include "error.h"
#include "property_codecs.h"
#include "property_list.h"

namespace dvsctl {
namespace {

// The flag the kernel gives the properties it is handed.
constexpr uint32_t kFlag = 0x20;

constexpr uint32_t kMaxSwitches = 32;
constexpr uint32_t kUplinksPerSwitch = 4;
// Every switch may hold all the sample's ports.
constexpr uint32_t kMaxPortsPerSwitch = kMaxSamplePorts;
constexpr uint32_t kPacketLengthNotSet = dvs::layouts::kMirrorPacketLengthNotSet;

// A deterministic generator (splitmix64): the same seed gives the same host
// on every platform.
class Rng {
  public:
   explicit Rng(uint32_t seed) : state_(seed) {}
   uint32_t Next() {
      uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
      return static_cast<uint32_t>((z ^ (z >> 31)) >> 32);
   }
   uint32_t Below(uint32_t n) { return Next() % n; }
   bool Percent(uint32_t p) { return Below(100) < p; }

  private:
   uint64_t state_;
};

struct ClassPlan {
   const char *className;
   uint32_t version;
   bool zlt;
};

// Cycled through by switch index.
constexpr ClassPlan kClassPlans[] = {
   {"etherswitch", 6, false}, {"vswitch", 7, false},      {"cswitch", 10, false},
   {"zltvswitch", 107, true}, {"vswitch", 108, true},     {"etherswitch", 5, false},
   {"cswitch", 109, true},    {"etherswitch", 100, true},
};

Bytes Text(const std::string &s) {
   Bytes b(s.begin(), s.end());
   b.push_back(0);
   return b;
}

template <typename T>
Bytes Raw(T v) {
   Bytes b(sizeof v);
   std::memcpy(b.data(), &v, sizeof v);
   return b;
}

template <typename T>
void Append(Bytes &b, T v) {
   const Bytes raw = Raw(v);
   b.insert(b.end(), raw.begin(), raw.end());
}

// A text in a zero-filled slot of `width` bytes.
void AppendSlot(Bytes &b, const std::string &text, size_t width) {
   Bytes slot(width, 0);
   std::memcpy(slot.data(), text.data(), text.size() < width ? text.size() : width - 1);
   b.insert(b.end(), slot.begin(), slot.end());
}

Bytes Ipv4(const char *text) {
   Bytes b(4);
   if (inet_pton(AF_INET, text, b.data()) != 1) {
      throw Error(std::string("bad sample address ") + text);
   }
   return b;
}

// Properties in the order they are set.
using PropList = std::vector<std::pair<std::string, Bytes>>;

struct ResPool {
   const char *key;
   int64_t limit;  // Mbit/s, -1: none
   int64_t reservation;
   uint32_t shares;
   uint32_t level;  // 0 low, 1 normal, 2 high, 3 custom
};
constexpr ResPool kPools[] = {
   {"netsched.pools.persist.mgmt", -1, 0, 50, 1},
   {"netsched.pools.persist.vmotion", -1, 0, 50, 1},
   {"netsched.pools.persist.vm", -1, 100, 100, 2},
   {"netsched.pools.persist.nfs", 1000, 0, 25, 0},
};

Bytes ResPoolSettings() {
   Bytes b;
   Append<uint32_t>(b, static_cast<uint32_t>(std::size(kPools)));
   for (const ResPool &pool : kPools) {
      AppendSlot(b, pool.key, 128);
      Append<int64_t>(b, pool.limit);
      Append<int64_t>(b, pool.reservation);
      Append<uint32_t>(b, pool.shares);
      Append<uint32_t>(b, pool.level);
   }
   return b;
}

// One network filter with its parameters.
Bytes FilterPolicy(uint32_t slot, const std::vector<std::string> &params) {
   Bytes b;
   Append<uint32_t>(b, 1);
   AppendSlot(b, "dvfilter-generic-ostrel", 128);
   Append<uint32_t>(b, slot);
   Append<uint32_t>(b, 0);  // fail open
   Append<uint32_t>(b, static_cast<uint32_t>(params.size()));
   for (const std::string &param : params) {
      Append<uint32_t>(b, static_cast<uint32_t>(param.size() + 1));
      const Bytes text = Text(param);
      b.insert(b.end(), text.begin(), text.end());
   }
   return b;
}

// The switch id as the kernel writes one: sixteen hex pairs, a dash in the
// middle.
std::string SwitchId(Rng &rng) {
   std::string id;
   for (int i = 0; i < 16; i++) {
      char pair[4];
      std::snprintf(pair, sizeof pair, "%02x", rng.Below(256));
      id += pair;
      id += i == 7 ? "-" : (i == 15 ? "" : " ");
   }
   return id;
}

class SwitchBuilder {
  public:
   SwitchBuilder(Rng &rng, uint32_t index, uint32_t numPorts)
       : rng_(rng), index_(index), numPorts_(numPorts) {
      plan_ = kClassPlans[index % std::size(kClassPlans)];
      family_ = std::strcmp(plan_.className, "vswitch") == 0 ||
                std::strcmp(plan_.className, "cswitch") == 0;
      id_ = SwitchId(rng);
      ctx_.switchVersion = plan_.version;
      uplinks_ = numPorts < kUplinksPerSwitch ? numPorts : kUplinksPerSwitch;
   }

   void Build() {
      CheckStatus(
         DVSState_SwitchAdd(id_.c_str(), plan_.className, kMaxPortsPerSwitch, plan_.version),
         "cannot add switch " + id_);
      for (const auto &[name, value] : GlobalProps()) {
         Set(DVSState_GlobalPropSet, name, value);
      }
      for (const auto &[name, value] : HostProps()) {
         Set(DVSState_HostPropSet, name, value);
      }
      for (uint32_t k = 0; k < numPorts_; k++) {
         PropertyListBuilder data;
         for (const auto &[name, value] : k < uplinks_ ? UplinkPortProps(k) : VmPortProps(k)) {
            data.Append(name, value, kFlag);
         }
         ListPtr list = data.Release();
         const std::string port = PortId(k);
         CheckStatus(DVSState_PortAdd(id_.c_str(), port.c_str(), list.get()),
                     "cannot add port " + port + " of switch " + id_);
         list.release();  // the registry owns it now
      }
   }

  private:
   // The name of a property that exists once per class family.
   std::string Family(const char *rest) const {
      return std::string(family_ ? "com.ostrel.vswitch." : "com.ostrel.etherswitch.") + rest;
   }
   std::string Own(const char *rest) const {
      return std::string("com.ostrel.") + plan_.className + "." + rest;
   }
   std::string PortId(uint32_t k) const { return std::to_string(k); }
   std::string UplinkName(uint32_t k) const { return "uplink" + std::to_string(k + 1); }
   Bytes Encode(CodecKind kind, const Fields &fields) const {
      return EncodeProperty(kind, fields, ctx_);
   }
   Bytes RandomBytes(size_t n) {
      Bytes b(n);
      for (uint8_t &byte : b) {
         byte = static_cast<uint8_t>(rng_.Below(256));
      }
      return b;
   }
   // A VM port of this switch, picked by `salt`, for mirror sessions.
   std::string SomeVmPort(uint32_t salt) const {
      const uint32_t vms = numPorts_ - uplinks_;
      return vms == 0 ? "0" : PortId(uplinks_ + (salt * 7 + index_) % vms);
   }

   void Set(ReturnStatus (*set)(const char *, const char *, const void *, uint32_t, uint32_t),
            const std::string &name, const Bytes &value) {
      CheckStatus(
         set(id_.c_str(), name.c_str(), value.data(), static_cast<uint32_t>(value.size()), kFlag),
         "cannot set " + name + " on switch " + id_);
   }

   Fields Names(uint32_t from, uint32_t count) const {
      Fields names = Fields::array();
      for (uint32_t k = from; k < from + count && k < uplinks_; k++) {
         names.push_back(UplinkName(k));
      }
      return names;
   }

   Fields Teaming(uint32_t policy, uint32_t active) {
      return {{"policy", policy},
              {"failureFlags", rng_.Percent(80) ? 0x80 : 0xa0},
              {"percentage", 0},
              {"fullDuplex", rng_.Percent(30) ? 1 : 0},
              {"speed", rng_.Percent(50) ? 10 : 1000},
              {"teamingFlags", rng_.Percent(70) ? 0x22 : 0x2a},
              {"active", Names(0, active)},
              {"standby", Names(active, uplinks_ > active ? uplinks_ - active : 0)}};
   }

   Fields PortEntry(uint32_t kind, const std::string &text) const {
      return {{"kind", kind}, {"text", text}};
   }

   Fields Session(const std::string &key, const std::string &name, uint32_t type) const {
      return {{"key", key},
              {"name", name},
              {"sessionType", type},
              {"mirroredPacketLength", kPacketLengthNotSet},
              {"sessionFlags", 0},
              {"encapsulationVlanId", 0},
              {"recvWildcardTypes", 0},
              {"transmitWildcardTypes", 0},
              {"samplingRate", 1},
              {"encapType", 0},
              {"erspanId", 0},
              {"erspanCos", 0},
              {"erspanGraNanosec", 0},
              {"destination", Fields::array()},
              {"receive", Fields::array()},
              {"transmit", Fields::array()}};
   }

   // One session of every type: a port mirror, a remote source towards an
   // uplink, a remote destination fed by a VLAN, an encapsulated remote
   // source towards a collector, and a mixed-destination mirror.
   Bytes SwitchMirrorSessions() const {
      Fields sessions = Fields::array();
      Fields s = Session("session-1", "web tier mirror", 1);
      s["destination"].push_back(PortEntry(0, SomeVmPort(1)));
      s["receive"] = Fields::array({PortEntry(0, SomeVmPort(2)), PortEntry(0, SomeVmPort(3))});
      s["transmit"] = Fields::array({PortEntry(0, SomeVmPort(2))});
      sessions.push_back(s);

      s = Session("session-2", "rspan source", 2);
      s["mirroredPacketLength"] = 128;
      s["sessionFlags"] = 0x01 | 0x08;
      s["encapsulationVlanId"] = 300;
      s["destination"].push_back(PortEntry(1, UplinkName(1)));
      s["receive"] = Fields::array({PortEntry(0, SomeVmPort(4))});
      s["transmit"] = Fields::array({PortEntry(0, SomeVmPort(4)), PortEntry(0, SomeVmPort(5))});
      sessions.push_back(s);

      s = Session("session-3", "rspan destination", 3);
      s["sessionFlags"] = 0x04 | 0x10;
      s["destination"].push_back(PortEntry(0, SomeVmPort(6)));
      s["receive"].push_back({{"kind", 0}, {"vlan", 300}});
      sessions.push_back(s);

      s = Session("session-4", "erspan to collector", 4);
      s["recvWildcardTypes"] = 0x01 | 0x02;
      s["samplingRate"] = 10;
      s["encapType"] = 1;
      s["erspanId"] = 42;
      s["erspanCos"] = 3;
      s["erspanGraNanosec"] = 1;
      s["destination"].push_back({{"kind", 0}, {"address", "10.20.0.5"}});
      s["transmit"] = Fields::array({PortEntry(0, SomeVmPort(7))});
      sessions.push_back(s);

      s = Session("session-5", "uplink and port mirror", 0);
      s["sessionFlags"] = 0x20;
      s["destination"] = Fields::array({PortEntry(1, UplinkName(2)), PortEntry(0, SomeVmPort(8))});
      s["receive"] = Fields::array({PortEntry(0, SomeVmPort(9))});
      sessions.push_back(s);
      return Encode(CodecKind::kMirrorSessions,
                    {{"magic", dvs::layouts::kMirrorTableMagic},
                     {"version", dvs::layouts::kMirrorTableVersion},
                     {"sessions", sessions}});
   }

   PropList GlobalProps() {
      PropList props;
      const bool cswitch = std::strcmp(plan_.className, "cswitch") == 0;
      const bool vswitch = std::strcmp(plan_.className, "vswitch") == 0;
      // A cswitch goes without an alias; the store names it by its id.
      if (!cswitch) {
         props.emplace_back("com.ostrel.common.alias", Text("dvs-" + std::string(plan_.className) +
                                                            "-" + std::to_string(index_)));
      }
      props.emplace_back("com.ostrel.common.version", Raw<uint32_t>(plan_.version));
      if (plan_.zlt) {
         props.emplace_back("com.ostrel.common.portset.zlt", Text("true"));
      }
      if (cswitch) {
         props.emplace_back("com.ostrel.common.portset.mtu", Raw<uint32_t>(1600));
      } else {
         props.emplace_back(vswitch ? "com.ostrel.vswitch.mtu" : "com.ostrel.etherswitch.mtu",
                            Raw<uint32_t>(vswitch ? 1500 : 9000));
      }
      if (family_) {
         props.emplace_back("com.ostrel.common.opaqueDvs", Text("false"));
      } else {
         const std::string address = "10.0." + std::to_string(index_) + ".1";
         props.emplace_back("com.ostrel.etherswitch.ipv4addr", Ipv4(address.c_str()));
         props.emplace_back("com.ostrel.etherswitch.beaconTimeout", Raw<int32_t>(-1));
      }
      props.emplace_back(Family("multicastFilter"), Text(family_ ? "snooping" : "legacyFiltering"));
      props.emplace_back("com.ostrel.common.uplinkPorts",
                         Encode(CodecKind::kUplinkNames, {{"names", Names(0, uplinks_)}}));
      if (uplinks_ >= 2) {
         Fields groups = Fields::array({{{"name", "lag1"},
                                         {"key", "lag-1"},
                                         {"mode", 1},
                                         {"loadBalanceAlgorithm", 16},
                                         {"uplinkNum", 2}}});
         if (uplinks_ >= 4) {
            groups.push_back({{"name", "lag2"},
                              {"key", "lag-2"},
                              {"mode", 2},
                              {"loadBalanceAlgorithm", 19},
                              {"uplinkNum", 2}});
         }
         props.emplace_back("com.ostrel.etherswitch.lacp",
                            Encode(CodecKind::kLacpGroups, {{"groups", groups}}));
      }
      // The kernel keeps the map under its family's name.
      Fields entries = Fields::array();
      for (const auto &[primary, secondary, type] :
           std::initializer_list<std::tuple<int, int, int>>{
              {100, 100, 1}, {100, 101, 2}, {100, 102, 3}, {200, 200, 1}, {200, 201, 3}}) {
         entries.push_back({{"primaryId", primary}, {"secondaryId", secondary}, {"type", type}});
      }
      props.emplace_back(Family("pvlanMap"), Encode(CodecKind::kPvlanMap, {{"entries", entries}}));
      if (numPorts_ > uplinks_ && uplinks_ >= 3) {
         props.emplace_back(Family("mirrorSessions"), SwitchMirrorSessions());
      }
      const bool v6 = index_ % 5 == 4;
      props.emplace_back(
         "com.ostrel.etherswitch.ipfix",
         Encode(CodecKind::kIpfix,
                {{"idleFlowTimeout", 15},
                 {"activeFlowTimeout", 60},
                 {"collectorAddress",
                  v6 ? std::string("fd00:10::5") : "192.168.10." + std::to_string(5 + index_)},
                 {"collectorPort", 4739},
                 {"samplingRate", 100},
                 {"internalFlowsOnly", 0},
                 {"collectorIsIpv6", v6 ? 1 : 0},
                 {"observationDomainId", 1000 + index_}}));
      props.emplace_back("com.ostrel.etherswitch.cdp",
                         Encode(CodecKind::kLinkDiscovery, {{"protocol", family_ ? 0 : 1},
                                                            {"operation", index_ % 2 ? 3 : 1}}));
      props.emplace_back("com.ostrel.common.vlanmtucheck.deploy",
                         Encode(CodecKind::kHealthCheck, {{"enable", 1}, {"interval", 1}}));
      props.emplace_back(
         "com.ostrel.common.teamcheck.deploy",
         Encode(CodecKind::kHealthCheck, {{"enable", index_ % 2}, {"interval", 1}}));
      props.emplace_back("com.ostrel.common.respools.cfg", ResPoolSettings());
      Fields poolKeys = Fields::array();
      for (const ResPool &pool : kPools) {
         poolKeys.push_back(pool.key);
      }
      props.emplace_back("com.ostrel.common.respools.list",
                         Encode(CodecKind::kResPoolKeys, {{"names", poolKeys}}));
      props.emplace_back("com.ostrel.common.respools.sched", Bytes{1});
      props.emplace_back("com.ostrel.common.respools.version", Text("version3"));
      props.emplace_back("com.ostrel.common.resv.threshold", Raw<uint32_t>(75));
      if (family_ && uplinks_ >= 2) {
         props.emplace_back("com.ostrel.vswitch.teaming",
                            Encode(CodecKind::kTeaming, Teaming(3, uplinks_ / 2)));
      }
      props.emplace_back(Own("opaqueConfig"), RandomBytes(24));
      props.emplace_back(Own("volatile.stats"), Text("rx=" + std::to_string(rng_.Next()) +
                                                     ",tx=" + std::to_string(rng_.Next())));
      return props;
   }

   PropList HostProps() {
      PropList props;
      props.emplace_back("com.ostrel.common.host.portset",
                         Text("DvsPortset-" + std::to_string(index_)));
      Fields keys = Fields::array();
      for (uint32_t k = 0; k < uplinks_; k++) {
         keys.push_back(PortId(k));
      }
      props.emplace_back("com.ostrel.common.host.uplinkPorts",
                         Encode(CodecKind::kUplinkKeys, {{"names", keys}}));
      props.emplace_back(Own("hostCookie"), RandomBytes(8));
      return props;
   }

   PropList UplinkPortProps(uint32_t k) {
      PropList props;
      props.emplace_back("com.ostrel.common.port.alias", Text(UplinkName(k)));
      props.emplace_back("com.ostrel.common.port.connectid", Raw<uint32_t>(rng_.Next()));
      props.emplace_back("com.ostrel.common.port.block", Text("false"));
      props.emplace_back("com.ostrel.common.port.respools.cfg", ResPoolSettings());
      if (uplinks_ >= 2) {
         props.emplace_back("com.ostrel.etherswitch.port.lacp",
                            Encode(CodecKind::kLacpPolicy, {{"enabled", 1}, {"mode", 1}}));
      }
      return props;
   }

   Fields Vlan(uint32_t k) {
      Fields vlan = {{"flags", 0}, {"vlanId", 0}, {"ranges", Fields::array()}};
      if (k == uplinks_ + 5) {
         vlan["flags"] = 0x1;  // a trunk whose ranges are all gone
      } else if (k % 10 == 8) {
         vlan["flags"] = 0x1;
         vlan["ranges"] =
            Fields::array({{{"start", 1}, {"end", 100}}, {{"start", 200}, {"end", 300}}});
      } else if (k % 10 == 9) {
         vlan["flags"] = 0x1;
         vlan["ranges"] = Fields::array({{{"start", 0}, {"end", 4094}}});
      } else if (k % 10 >= 6) {
         vlan["flags"] = 0x2;
         vlan["vlanId"] = k % 2 ? 101 : 102;
      } else {
         vlan["vlanId"] = 10 + 10 * (k % 6);
      }
      return vlan;
   }

   PropList VmPortProps(uint32_t k) {
      PropList props;
      const std::string vm = "vm" + std::to_string(index_) + "-" + std::to_string(k);
      props.emplace_back("com.ostrel.common.port.alias", Text(vm + ".eth0"));
      props.emplace_back("com.ostrel.common.port.connectid", Raw<uint32_t>(rng_.Next()));
      props.emplace_back("com.ostrel.common.port.portgroupid",
                         Text("dvportgroup-" + std::to_string(10 + k % 6)));
      props.emplace_back("com.ostrel.common.port.block", Text(rng_.Percent(5) ? "true" : "false"));
      props.emplace_back("com.ostrel.common.port.backingType", Text("standard"));
      // Every teaming code with a text, 4 and 5 included.
      const uint32_t policy = 1 + rng_.Below(5);
      props.emplace_back(
         family_ ? "com.ostrel.vswitch.port.teaming.policy" : "com.ostrel.etherswitch.port.teaming",
         Encode(CodecKind::kTeaming, Teaming(policy, uplinks_ > 1 ? 2 : 1)));
      props.emplace_back(Family("port.vlan"), Encode(CodecKind::kPortVlan, Vlan(k)));
      if (family_ && k % 3 == 0) {
         props.emplace_back("com.ostrel.vswitch.port.priority", Raw<uint32_t>(k % 8));
      }
      if (k % 4 == 0) {
         const Fields shaping = {{"averageBandwidth", 100000000ull},
                                 {"peakBandwidth", 200000000ull},
                                 {"burstSize", 104857600ull + k}};
         props.emplace_back("com.ostrel.common.port.shaper.input",
                            Encode(CodecKind::kShaping, shaping));
         props.emplace_back("com.ostrel.common.port.shaper.output",
                            Encode(CodecKind::kShaping, shaping));
      }
      const uint32_t reject[] = {0x1, 0x1, 0x1, 0x7, 0x0, 0x5};
      props.emplace_back(Family("port.security"),
                         Encode(CodecKind::kSecurity, {{"rejectBits", reject[k % 6]}}));
      if (k % 7 == 0) {
         props.emplace_back(Family("port.txUplink"), Text(k % 14 == 0 ? "normal" : "always"));
      }
      if (k % 5 == 0) {
         props.emplace_back("com.ostrel.common.port.ptAllowed", Raw<uint32_t>(k % 10 ? 0 : 2));
      }
      if (k % 6 == 0) {
         props.emplace_back("com.ostrel.etherswitch.port.ipfix", Text("enabled"));
      }
      if (k % 15 == 0) {
         // A promiscuous session watching this port.
         Fields s = Session("port-" + PortId(k), vm + " watch", 1);
         s["sessionFlags"] = 0x10;
         s["destination"].push_back(PortEntry(0, SomeVmPort(k)));
         s["receive"].push_back(PortEntry(0, PortId(k)));
         s["transmit"].push_back(PortEntry(0, PortId(k)));
         props.emplace_back(Family("port.mirrorSessions"),
                            Encode(CodecKind::kMirrorSessions, {{"sessions", Fields::array({s})}}));
      }
      if (k % 25 == 0) {
         props.emplace_back("com.ostrel.common.port.dvfilter",
                            FilterPolicy(k % 2, {"mode=inline", "profile=" + vm}));
      }
      props.emplace_back(Own("port.vnicInfo"), RandomBytes(12));
      props.emplace_back("com.ostrel.common.port.volatile.stats",
                         Text("rxPackets=" + std::to_string(rng_.Next())));
      return props;
   }

   Rng &rng_;
   uint32_t index_;
   uint32_t numPorts_;
   ClassPlan plan_{};
   bool family_ = false;
   std::string id_;
   CodecContext ctx_;
   uint32_t uplinks_ = 0;
};

// Empties the registry when the build is over, completed or not.
struct RegistryReset {
   RegistryReset() = default;
   RegistryReset(const RegistryReset &) = delete;
   RegistryReset &operator=(const RegistryReset &) = delete;
   ~RegistryReset() { DVSState_ConfigReset(); }
};

}  // namespace

Bytes BuildSampleHost(const SampleHostOptions &options) {
   if (options.switches < 1 || options.switches > kMaxSwitches) {
      throw Error("--switches " + std::to_string(options.switches) + ": between 1 and " +
                  std::to_string(kMaxSwitches) + " switches");
   }
   if (options.ports > kMaxSamplePorts) {
      throw Error("--ports " + std::to_string(options.ports) + ": at most " +
                  std::to_string(kMaxSamplePorts) + " ports");
   }
   RegistryReset reset;
   Rng rng(options.seed);
   for (uint32_t i = 0; i < options.switches; i++) {
      const uint32_t ports =
         options.ports / options.switches + (i < options.ports % options.switches ? 1 : 0);
      SwitchBuilder(rng, i, ports).Build();
   }
   void *raw = nullptr;
   uint32_t len = 0;
   const ReturnStatus status = DVSState_ConfigSerialize(&raw, &len);
   const std::unique_ptr<void, decltype(&std::free)> blob(raw, &std::free);
   CheckStatus(status, "cannot serialize the sample host");
   const auto *bytes = static_cast<const uint8_t *>(blob.get());
   return bytes != nullptr ? Bytes(bytes, bytes + len) : Bytes{};
}

}  // namespace dvsctl

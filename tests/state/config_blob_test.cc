// The host configuration blob: its bytes, the reader's merge and failure
// rules, the strip of switches not to be persisted, and a round trip.
#include <algorithm>
#include <tuple>

#include "state_test_support.h"

using namespace statetest;

namespace {

class ConfigBlobTest : public StateTest {};

std::string SwitchBlob(DVSwitch *d) {
   void *blob = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(DVSState_SwitchSerialize(d, &blob, &len), STATUS_OK);
   const std::string out(static_cast<char *>(blob), blob ? len : 0);
   free(blob);
   return out;
}

ReturnStatus Read(const std::string &blob) {
   return DVSState_ConfigDeserialize(blob.data(), blob.size());
}

DVSPort *AddPort(const char *sw, const char *id, uint32_t type, const Props &data = {}) {
   DVSPort *p = nullptr;
   EXPECT_EQ(DVSStatePortAdd(DVSState_SwitchFind(sw), id, NewList(data), type, &p), STATUS_OK);
   return p;
}

TEST_F(ConfigBlobTest, HostBlobBytes) {
   EXPECT_EQ(HostBlob(), Blob({}));
   ASSERT_EQ(DVSState_SwitchAdd("s1", "etherswitch", 0, 100), STATUS_OK);
   DVSwitch *d = DVSState_SwitchFind("s1");
   ASSERT_EQ(DVSState_GlobalPropSet("s1", DVS_PROP_SWITCH_ALIAS, "one", 4, 0x18), STATUS_OK);
   ASSERT_EQ(DVSState_HostPropSet("s1", "h", "hv", 2, 0x20), STATUS_OK);
   std::memset(d->className, 'z', sizeof d->className);  // what follows the NUL is not written
   std::strcpy(d->className, "etherswitch");
   d->newMaxPorts = 7;  // the pending limit is the one kept
   const std::string sw =
      Blob({{"switchVersion", U32(100)},
            {"className", std::string("etherswitch").append(117, '\0')},
            {"maxPorts", U32(7)},
            {"globalPropList", Blob({{DVS_PROP_SWITCH_ALIAS, {"one", 4}}}, 0x18)},
            {"hostPropList", Blob({{"h", "hv"}}, 0x20)}});
   EXPECT_EQ(HostBlob(), Blob({{"s1", sw}}));
   EXPECT_EQ(Captured(1, [&] { EXPECT_EQ(SwitchBlob(d), sw); }),
             "DVSState_SwitchSerialize s1\nAdd DVS(s1) property list succesfully\n"
             "DVSState_SwitchDeserialize dvs s1 return Success\n");
}

TEST_F(ConfigBlobTest, SwitchBlobPortsAndVersion99Lists) {
   for (uint32_t ver : {99u, 7u}) {
      ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
      ASSERT_EQ(DVSState_SwitchAdd("s", "etherswitch", 0, ver), STATUS_OK);
      for (uint32_t flag : {0x10u, 0x08u, 0x04u, 0x20u}) {
         ASSERT_EQ(DVSState_GlobalPropSet("s", Fmt("%x", flag).c_str(), "v", 1, flag), STATUS_OK);
         ASSERT_EQ(DVSState_HostPropSet("s", Fmt("%x", flag).c_str(), "v", 1, flag), STATUS_OK);
      }
      AddPort("s", "p1", DVS_PORT_ACTIVE, {{"k", "active"}});
      AddPort("s", "gone", DVS_PORT_ACTIVE)->portType = 0;  // left out
      AddPort("s", "p1", DVS_PORT_SHADOW, {{"k", "shadow"}});
      DVSPort *z = AddPort("s", "p2", DVS_PORT_ZOMBIE);

      const Props sw = Decode(SwitchBlob(DVSState_SwitchFind("s")));
      EXPECT_EQ(Names(sw), (Ids{"switchVersion", "className", "maxPorts", "globalPropList",
                                "hostPropList", "p1", "p1", "p2"}));
      // Version 99 keeps only the properties without type bits 0x64; ports keep all.
      const Ids kept = ver == 99 ? Ids{"10", "8"} : Ids{"10", "8", "4", "20"};
      EXPECT_EQ(Names(Decode(sw[3].second)), kept) << ver;
      EXPECT_EQ(Names(Decode(sw[4].second)), kept) << ver;
      EXPECT_EQ(Decode(sw[5].second), (Props{{"k", "active"}}));
      EXPECT_EQ(Decode(sw[6].second), (Props{{"k", "shadow"}}));
      void *blob = nullptr;
      uint32_t len = 0;
      ASSERT_EQ(DVSState_PortSerialize(z, &blob, &len), STATUS_OK);
      EXPECT_EQ(std::string(static_cast<char *>(blob), len), sw[7].second);
      DVSData_FreeAssocData(z->data, blob);
   }
}

TEST_F(ConfigBlobTest, ReaderMergesAndRestoresPortTypes) {
   ASSERT_EQ(DVSState_SwitchAdd("s1", "etherswitch", 0, 100), STATUS_OK);
   ASSERT_EQ(DVSState_GlobalPropSet("s1", "new", "g", 1, 0), STATUS_OK);
   ASSERT_EQ(DVSState_HostPropSet("s1", "newh", "h", 1, 0), STATUS_OK);
   AddPort("s1", "p1", DVS_PORT_ACTIVE, {{"a", "1"}});
   AddPort("s1", "p2", DVS_PORT_SHADOW, {{"b", "2"}, {DVS_PROP_PORT_TYPE, U32(2)}});
   ASSERT_EQ(DVSState_SwitchAdd("s2", "myclass", 9, 8), STATUS_OK);
   AddPort("s2", "p3", DVS_PORT_LOCAL_CACHE, {{DVS_PROP_PORT_TYPE, U32(4)}});
   const std::string blob = HostBlob();
   // s1 exists with another class, limit, version, lists and a port of its
   // own: it keeps the first three and its port, and takes the rest.
   ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
   DVSwitch *d1 = (DVSState_SwitchAdd("s1", "myclass", 10, 7), DVSState_SwitchFind("s1"));
   ASSERT_EQ(DVSState_GlobalPropSet("s1", "old", "g", 1, 0), STATUS_OK);
   ASSERT_EQ(DVSState_HostPropSet("s1", "oldh", "h", 1, 0), STATUS_OK);
   AddPort("s1", "p0", DVS_PORT_ACTIVE);
   ASSERT_EQ(Read(blob), STATUS_OK);
   DVSwitch *d2 = DVSState_SwitchFind("s2");
   ASSERT_TRUE(d1 && d2);
   EXPECT_EQ(std::make_tuple(std::string(d1->className), d1->maxPorts, d1->version, d1->numPorts),
             std::make_tuple(std::string("myclass"), 10u, 7u, 3u));
   EXPECT_EQ(Names(Entries(d1->globalPropList)), Ids{"new"});
   EXPECT_EQ(Names(Entries(d1->hostPropList)), Ids{"newh"});
   EXPECT_EQ(Ports(d1), (Ids{"p0/1", "p1/1", "p2/2"}));
   EXPECT_EQ(Entries(DVSState_PortFindShadow("s1", "p2")->data), (Props{{"b", "2"}}));
   EXPECT_EQ(std::make_tuple(std::string(d2->className), d2->maxPorts, d2->version),
             std::make_tuple(std::string("myclass"), 9u, 8u));
   EXPECT_EQ(Ports(d2), Ids{"p3/4"});
   // A single port: the type comes from its data; a blob that does not decode is refused.
   const std::string zombie = Blob({{DVS_PROP_PORT_TYPE, U32(3)}});
   EXPECT_EQ(DVSState_PortDeserialize("s2", "z", zombie.data(), zombie.size()), STATUS_OK);
   EXPECT_EQ(DVSState_PortDeserialize("s1", "p1", zombie.data(), zombie.size() - 1),
             STATUS_BAD_PARAM);
   EXPECT_EQ(Ports(d2), (Ids{"p3/4", "z/3"}));
   // Read again, p1 is there already: the read fails and empties the registry.
   EXPECT_EQ(Read(blob), STATUS_EXISTS);
   EXPECT_TRUE(Switches().empty());
}

TEST_F(ConfigBlobTest, FailedReadsAndSparseSwitchBlobs) {
   const Props base = {{"switchVersion", U32(7)},
                       {"className", std::string("etherswitch", 12)},
                       {"maxPorts", U32(0)}};
   const std::string good = Blob(base);
   std::string bad = good, host, damaged;
   bad[40] ^= 1;
   damaged = host = Blob({{"a", good}, {"b", bad}});
   damaged[100] ^= 1;
   ASSERT_EQ(DVSState_SwitchAdd("pre", "etherswitch", 0, 7), STATUS_OK);
   EXPECT_EQ(Captured(0, [&] { EXPECT_EQ(Read(damaged), STATUS_BAD_CHECKSUM); }),
             "DVSState_ConfigDeserialize failed Bad checksum\n");
   EXPECT_EQ(Switches(), Ids{"pre"});
   EXPECT_EQ(Read(host), STATUS_BAD_CHECKSUM);  // nothing stays, not "pre", not "a"
   EXPECT_TRUE(Switches().empty());
   // A port blob or a switch's nested list that fails its own checksum two
   // levels down fails the read the same way, though every blob around it
   // checks out; so does one whose header claims less than its record holds.
   // Large enough that the host pass keeps its sum for the port reader.
   const std::string port = Blob({{"x", std::string(1200, 'v')}});
   std::string badPort = port, shortPort = port;
   badPort[port.size() - 8] ^= 1;
   shortPort[0] = static_cast<char>(shortPort[0] - 4);
   const std::vector<std::pair<Props, ReturnStatus>> nestedCases = {
      {{{"p1", port}, {"p2", badPort}}, STATUS_BAD_CHECKSUM},
      {{{"p1", shortPort}}, STATUS_BAD_PARAM},  // its end marker is outside it
      {{{"globalPropList", badPort}}, STATUS_BAD_CHECKSUM}};
   for (const auto &[records, status] : nestedCases) {
      Props withPorts = base;
      withPorts.insert(withPorts.end(), records.begin(), records.end());
      const std::string nested = Blob({{"a", good}, {"c", Blob(withPorts)}});
      EXPECT_EQ(Read(nested), status) << records.back().first;
      EXPECT_TRUE(Switches().empty());
   }
   Props fine = base;
   fine.insert(fine.end(), {{"globalPropList", port}, {"p1", port}, {"p2", port}});
   EXPECT_EQ(Read(Blob({{"c", Blob(fine)}})), STATUS_OK);
   EXPECT_EQ(Switches(), Ids{"c"});
   EXPECT_EQ(DVSState_ConfigReset(), STATUS_OK);

   // Without its two lists a switch gets empty ones.
   ASSERT_EQ(DVSState_SwitchDeserialize("a", good.data(), good.size()), STATUS_OK);
   DVSwitch *a = DVSState_SwitchFind("a");
   ASSERT_TRUE(a && a->globalPropList && a->hostPropList);
   EXPECT_EQ(
      DVSState_HostPropSet("a", "x", "1", 1, 0) + DVSState_GlobalPropSet("a", "x", "1", 1, 0), 0u);
   EXPECT_EQ(std::make_tuple(std::string(a->className), a->maxPorts, a->version),
             std::make_tuple(std::string("etherswitch"), uwMaxNumActivePortsSystemWide, 7u));
   // A missing record refuses the switch; so does a port that cannot be
   // added, and the switch that the read made goes again.
   for (size_t missing = 0; missing < base.size(); ++missing) {
      Props p = base;
      p.erase(p.begin() + missing);
      const std::string blob = Blob(p);
      const std::string out = Captured(0, [&] {
         EXPECT_EQ(DVSState_SwitchDeserialize("c", blob.data(), blob.size()), STATUS_NOT_FOUND);
      });
      EXPECT_EQ(
         out, missing ? "" : Fmt("Failed to find switchVersion, status:%d\n\n", STATUS_NOT_FOUND));
   }
   Props twice = base;
   twice.insert(twice.end(), 2, {"p", Blob({})});
   const std::string blob = Blob(twice);
   EXPECT_EQ(DVSState_SwitchDeserialize("c", blob.data(), blob.size()), STATUS_EXISTS);
   EXPECT_EQ(Switches(), Ids{"a"});
}

TEST_F(ConfigBlobTest, StripNonPersistedAndDetachedTables) {
   DVSwitch *array[DVS_MAX_SWITCHES];
   char ids[DVS_MAX_SWITCHES][DVS_SWITCH_ID_MAX] = {};
   const auto held = [&] {
      Ids out;
      for (DVSwitch *d : array)
         out.push_back(d ? d->id : "-");
      return out;
   };
   for (int detach : {0, 1}) {
      ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
      for (const char *id : {"a", "b", "c", "d"}) {  // "b" unmarked, "c" marked 0
         const char flag = *id != 'c';
         ASSERT_EQ(DVSState_SwitchAdd(id, "etherswitch", 0, 7), STATUS_OK);
         ASSERT_EQ(*id == 'b' ? 0 : DVSState_GlobalPropSet(id, DVS_PROP_NOPERSIST, &flag, 1, 0),
                   0u);
      }
      std::memset(array, 0x5a, sizeof array);
      EXPECT_EQ(DVSState_StripDvsWithNoPersistFlag(array, ids, detach), detach == 1);
      EXPECT_EQ(Ids(ids, ids + 3), (Ids{"a", "d", ""}));
      EXPECT_EQ(Switches(), detach ? Ids{} : (Ids{"b", "c"}));
      Ids want(DVS_MAX_SWITCHES, "-");
      if (detach) {
         want[1] = "b", want[2] = "c";
      }
      EXPECT_EQ(held(), want);
   }
   // Registered "a" is named and moves into the array's first gap; the
   // array becomes the registry, and what was registered goes to the array.
   ASSERT_EQ(DVSState_SwitchAdd("x", "etherswitch", 0, 7), STATUS_OK);
   ASSERT_EQ(DVSState_SwitchAdd("a", "etherswitch", 0, 7), STATUS_OK);
   DVSState_UpdateGlobalSwsArray(array, ids);
   EXPECT_EQ(Switches(), (Ids{"a", "b", "c"}));
   Ids want(DVS_MAX_SWITCHES, "-");
   want[0] = "x";
   EXPECT_EQ(held(), want);
   DVSState_FreeDVSArray(array);  // destroys both (the leak check of the ASan run)
   EXPECT_TRUE(Switches().empty());
}

TEST_F(ConfigBlobTest, RoundTripThroughResetGivesTheSameBlob) {
   const struct {
      const char *id, *cls;
      uint32_t max, ver;
   } switches[] = {{"e1", "etherswitch", 0, 100},
                   {"o1", "myclass", 6, 7},
                   {"z1", "zltvswitch", 3, 6},
                   {"n1", "other", 5, 99}};
   // Ports keep their type across the trip through an entry of their data,
   // which the reader takes out again.
   const auto addTypes = [](DVSPort *p, void *) {
      const uint32_t t = p->portType;
      EXPECT_EQ(t == 1 ? 0 : DVSState_PortDataSet(p, DVS_PROP_PORT_TYPE, &t, 4, 0x20), 0u);
      return false;
   };
   for (const auto &s : switches) {
      ASSERT_EQ(DVSState_SwitchAdd(s.id, s.cls, s.max, s.ver), STATUS_OK);
      ASSERT_EQ(DVSState_GlobalPropSet(s.id, DVS_PROP_SWITCH_ALIAS, s.id, 3, 0x10), STATUS_OK);
      ASSERT_EQ(DVSState_HostPropSet(s.id, "uplinks", "u0,u1", 5, 0x18), STATUS_OK);
      for (uint32_t t : {1, 2, 3, 4, 3})
         AddPort(s.id, "port", t, {{DVS_PROP_PORT_ALIAS, Fmt("%s-%u", s.id, t)}});
      DVSState_PortForEach(DVSState_SwitchFind(s.id), addTypes, nullptr);
   }
   const std::string first = HostBlob();
   ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
   ASSERT_EQ(Read(first), STATUS_OK);
   EXPECT_EQ(Switches(), (Ids{"e1", "o1", "z1", "n1"}));
   for (const auto &s : switches) {
      DVSwitch *d = DVSState_SwitchFind(s.id);
      EXPECT_EQ(Ports(d), (Ids{"port/1", "port/2", "port/3", "port/4", "port/3"})) << s.id;
      EXPECT_EQ(std::make_tuple(std::string(d->className), d->version),
                std::make_tuple(std::string(s.cls), s.ver));
      EXPECT_EQ(Names(Entries(DVSState_PortFindShadow(s.id, "port")->data)),
                Ids{DVS_PROP_PORT_ALIAS});
      DVSState_PortForEach(d, addTypes, nullptr);
   }
   EXPECT_EQ(HostBlob(), first);
}

// Host blobs with ports, composed record by record from the layout: values
// of every length modulo four, a port left out, a shadow sharing an id, and
// a version 99 switch whose nested list is filtered.  The blob reads back
// into the same registry.
TEST_F(ConfigBlobTest, HostBlobWithPortsMatchesItsComposition) {
   ASSERT_EQ(DVSState_SwitchAdd("s1", "etherswitch", 0, 7), STATUS_OK);
   ASSERT_EQ(DVSState_SwitchAdd("s2", "myclass", 4, 99), STATUS_OK);
   ASSERT_EQ(DVSState_GlobalPropSet("s2", "a", "x", 1, 0x10), STATUS_OK);
   ASSERT_EQ(DVSState_GlobalPropSet("s2", "b", "yy", 2, 0x20), STATUS_OK);
   Props ports;
   for (int n = 0; n < 7; n++) {
      const Props data{{"k", std::string(n, char('a' + n))}, {"vlan", U32(n)}};
      AddPort("s1", Fmt("p%d", n).c_str(), DVS_PORT_ACTIVE, data);
      ports.emplace_back(Fmt("p%d", n), Blob(data, 0x20));
      if (n == 2)
         AddPort("s1", "gone", DVS_PORT_ACTIVE)->portType = 0;
   }
   const Props shadow{{"k", "s"}, {DVS_PROP_PORT_TYPE, U32(DVS_PORT_SHADOW)}};
   AddPort("s1", "p1", DVS_PORT_SHADOW, shadow);
   ports.emplace_back("p1", Blob(shadow, 0x20));
   const auto head = [](uint32_t ver, uint32_t max, const std::string &global) {
      return Props{
         {"switchVersion", U32(ver)},
         {"className",
          std::string(ver == 7 ? "etherswitch" : "myclass").append(ver == 7 ? 117 : 121, '\0')},
         {"maxPorts", U32(max)},
         {"globalPropList", global},
         {"hostPropList", Blob({})}};
   };
   Props sw1 = head(7, DVSState_SwitchFind("s1")->newMaxPorts, Blob({}));
   sw1.insert(sw1.end(), ports.begin(), ports.end());
   const std::string want =
      Blob({{"s1", Blob(sw1)}, {"s2", Blob(head(99, 4, Blob({{"a", "x"}})))}});
   EXPECT_EQ(HostBlob(), want);
   ASSERT_EQ(DVSState_ConfigReset(), STATUS_OK);
   ASSERT_EQ(Read(want), STATUS_OK);
   EXPECT_EQ(Ports(DVSState_SwitchFind("s1")),
             (Ids{"p0/1", "p1/1", "p2/1", "p3/1", "p4/1", "p5/1", "p6/1", "p1/2"}));
}

}  // namespace

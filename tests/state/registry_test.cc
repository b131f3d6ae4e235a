// The switch registry, the port tables and the property operations.  This
// executable runs with a host-wide limit of 100 ports, set through the host
// library before the first add (the limit is read once per process).
#include <random>

#include "state_test_support.h"

using namespace statetest;

namespace {

struct HostLimit100 : testing::Environment {
   void SetUp() override {
      ASSERT_EQ(uwMaxNumActivePortsSystemWide, 0u);
      setenv(KSI_MAX_PORTS_ENV, "100", 1);
   }
};
testing::Environment *const kEnvironment = testing::AddGlobalTestEnvironment(new HostLimit100);

class RegistryTest : public StateTest {};

DVSwitch *Add(const char *id, const char *cls = "etherswitch", uint32_t max = 8, uint32_t ver = 7) {
   EXPECT_EQ(DVSState_SwitchAdd(id, cls, max, ver), STATUS_OK) << id;
   return DVSState_SwitchFind(id);
}

// Adds a port of any type; a list that the add refuses stays ours to free.
ReturnStatus AddPort(DVSwitch *d, const std::string &id, uint32_t type = 1, const char *alias = 0) {
   DVSDataHandle h =
      NewList(alias ? Props{{DVS_PROP_PORT_ALIAS, {alias, strlen(alias) + 1}}} : Props{});
   const ReturnStatus st = DVSStatePortAdd(d, id.c_str(), h, type, nullptr);
   if (st != STATUS_OK)
      DVSData_Free(h);
   return st;
}

TEST_F(RegistryTest, SwitchAddClassesLimitsAndSlots) {
   EXPECT_EQ(Captured(1, [] { Add("zltvswitch", "zltvswitch", 5, 3); }),
             "DVSState_SwitchAdd zltvswitch, zltvswitch, 100\n");  // the version is not checked
   setenv(KSI_MAX_PORTS_ENV, "50", 1);  // read once: this changes nothing
   const std::pair<const char *, uint32_t> classes[] = {
      {"zltvswitch", 3}, {"etherswitch", 1}, {"stub-vswitch", 1}, {"cswitch", 1},
      {"vswitch", 1},    {"Vswitch", 0},     {"vswitch ", 0},     {"myclass", 0}};
   for (auto [cls, kind] : classes) {
      DVSwitch *d = kind == 3 ? DVSState_SwitchFind(cls) : Add(cls, cls, 5, 3);
      const uint32_t want = kind ? 100 : 5;
      EXPECT_EQ(std::make_tuple(d->switchKind, d->maxPorts, d->newMaxPorts, d->version),
                std::make_tuple(kind, want, want, 3u))
         << cls;
      EXPECT_STREQ(DVS_ClassName(d), cls);
   }
   // 63 characters fit; 64 are refused before class and limit are looked at.
   const std::string id63(63, 'i'), id64(64, 'i');
   EXPECT_EQ(DVSState_SwitchAdd(id64.c_str(), "myclass", ~0u, 7), STATUS_BAD_PARAM);
   EXPECT_STREQ(DVS_SwitchId(Add(id63.c_str())), id63.c_str());
   EXPECT_EQ(Captured(0, [] { DVSState_SwitchAdd("myclass", "etherswitch", 9, 100); }),
             "DVSState_SwitchAdd failed DVS:myclass Error: Already exists\n");
   EXPECT_EQ(DVSState_SwitchFind("myclass")->maxPorts, 5u);  // untouched
   // 32 slots however many ports are left; a freed slot is reused in place.
   for (int i = 9; i < 32; ++i)
      Add(std::to_string(i).c_str(), "myclass", 1);
   EXPECT_EQ(DVSState_SwitchAdd("33rd", "etherswitch", 0, 7), STATUS_LIMIT_EXCEEDED);
   ASSERT_EQ(DVSState_SwitchRemove("cswitch"), STATUS_OK);
   EXPECT_EQ(
      Captured(1, [] { EXPECT_EQ(DVSState_SwitchRemove("cswitch"), STATUS_NOT_FOUND); }),
      "DVSState_SwitchRemove cswitch\nDVSState_SwitchRemove DVSID cswitch, statue Not found\n");
   Add("late");
   const Ids ids = Switches();
   EXPECT_EQ(Ids(ids.begin() + 2, ids.begin() + 5), (Ids{"stub-vswitch", "late", "vswitch"}));
   EXPECT_EQ(ids.size(), 32u);
   int calls = 0;  // a walk stops when its callback says so
   DVSState_SwitchForEach([](DVSwitch *, void *c) { return ++*(int *)c == 2; }, &calls);
   EXPECT_EQ(calls, 2);

   // Versions: 4 to 10, 100 and 107 to 110, judged unsigned.
   for (int32_t v : {4, 10, 100, 107, 110})
      EXPECT_EQ(DVSState_SwitchSetVersion("late", v), STATUS_OK) << v;
   for (int32_t v : {0, 3, 11, 99, 101, 106, 111, -1, INT32_MIN + 7})
      EXPECT_EQ(DVSState_SwitchSetVersion("late", v), STATUS_NOT_SUPPORTED) << v;
   EXPECT_EQ(DVSState_SwitchSetVersion("nope", 99), STATUS_NOT_SUPPORTED);
   EXPECT_EQ(Captured(0, [] { EXPECT_EQ(DVSState_SwitchSetVersion("nope", 8), STATUS_NOT_FOUND); }),
             "");
   EXPECT_EQ(Captured(0, [] { DVSState_SwitchSetVersion("late", 7); }),
             "Set DVS late version from 110 to 7\n");
   EXPECT_EQ(DVS_Version(DVSState_SwitchFind("late")), 7u);
}

TEST_F(RegistryTest, HostWideLimitCountsThePortsOfAllSwitches) {
   DVSwitch *z = Add("zlt", "zltvswitch", 5);
   for (int i = 0; i < 40; ++i)  // more than it asked for
      ASSERT_EQ(AddPort(z, Fmt("z%d", i)), STATUS_OK);
   // An ordinary switch may ask for what the existing ports leave; the limits
   // of several may add up to more than the host has.
   EXPECT_EQ(Captured(0, [] { DVSState_SwitchAdd("o61", "myclass", 61, 7); }),
             "DVSState_SwitchAdd o61, failed with maxPorts exceed 61.\n");
   DVSwitch *o = Add("o60", "myclass", 60), *o2 = Add("o60b", "myclass", 60);
   for (int i = 0; i < 60; ++i)
      ASSERT_EQ(AddPort(i % 2 ? o : o2, Fmt("p%d", i)), STATUS_OK);
   // Host full: every add on every switch fails, whatever the port type.
   const std::string shadow = Blob({{"k", "v"}});
   for (const char *sw : {"zlt", "o60", "o60b"}) {
      const std::string out = Captured(0, [&] {
         EXPECT_EQ(AddPort(DVSState_SwitchFind(sw), "x", DVS_PORT_ZOMBIE), STATUS_LIMIT_EXCEEDED);
         EXPECT_EQ(DVSState_PortAddShadow(sw, "x", shadow.data(), shadow.size()),
                   STATUS_LIMIT_EXCEEDED);
      });
      EXPECT_EQ(out, Fmt("DVSStatePortAdd %s, host has already used up max num ports (100)\n"
                         "DVSStatePortAdd %s, host has already used up max num ports (100)\n",
                         sw, sw));
   }
   EXPECT_EQ(DVSState_SwitchAdd("o1", "myclass", 1, 7), STATUS_LIMIT_EXCEEDED);
   DVSwitch *e = Add("eth", "etherswitch", 0);
   // Ports go back to the host with their switch, and one by one.
   ASSERT_EQ(DVSState_SwitchRemove("o60b"), STATUS_OK);
   EXPECT_EQ(DVSState_SwitchAdd("o31", "myclass", 31, 7), STATUS_LIMIT_EXCEEDED);
   Add("o30", "myclass", 30);
   for (int i = 0; i < 30; ++i)
      ASSERT_EQ(AddPort(e, Fmt("e%d", i)), STATUS_OK);
   EXPECT_EQ(AddPort(DVSState_SwitchFind("o30"), "x"), STATUS_LIMIT_EXCEEDED);
   ASSERT_EQ(DVSState_PortRemove("zlt", "z0"), STATUS_OK);
   EXPECT_EQ(AddPort(DVSState_SwitchFind("o30"), "x"), STATUS_OK);
}

TEST_F(RegistryTest, PortIdLengthAndPerSwitchLimit) {
   // At most 15 characters up to version 6, 47 above (compared unsigned).
   for (auto [ver, fits] : {std::pair{6u, 15}, {0u, 15}, {7u, 47}, {0x80000000u, 47}}) {
      DVSwitch *d = Add(("v" + std::to_string(ver)).c_str(), "etherswitch", 0, ver);
      EXPECT_EQ(AddPort(d, std::string(fits + 1, 'p')), STATUS_BAD_PARAM) << ver;
      EXPECT_EQ(AddPort(d, std::string(fits, 'p')), STATUS_OK) << ver;
   }
   // Only ordinary classes meet their own limit, with a message; a host-wide
   // class whose slots run out is refused silently.
   DVSwitch *o = Add("ord", "myclass", 2), *e = Add("eth");
   e->newMaxPorts = 2;
   EXPECT_EQ(DVS_UpdateMaxPorts(e), 2u);
   for (DVSwitch *d : {o, e})
      for (const char *id : {"a", "b"})
         ASSERT_EQ(AddPort(d, id), STATUS_OK);
   EXPECT_EQ(Captured(0, [&] { EXPECT_EQ(AddPort(o, "c"), STATUS_LIMIT_EXCEEDED); }),
             "DVSStatePortAdd ord, switch has already used up max num ports (2)\n");
   EXPECT_EQ(Captured(0, [&] { EXPECT_EQ(AddPort(e, "c"), STATUS_LIMIT_EXCEEDED); }), "");
   // The test is one of equality: below the count, only the slots stop adds.
   o->newMaxPorts = 1;
   DVS_UpdateMaxPorts(o);
   EXPECT_EQ(Captured(0, [&] { EXPECT_EQ(AddPort(o, "c"), STATUS_LIMIT_EXCEEDED); }), "");
   EXPECT_EQ(o->numPorts + e->numPorts, 4u);
}

TEST_F(RegistryTest, PortTypesLookupsAndSlotReuse) {
   const uint8_t uuid[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
   const char *s1 = "00 01 02 03 04 05 06 07-08 09 0a 0b 0c 0d 0e 0f";
   DVSwitch *d = Add(s1);
   EXPECT_EQ(DVSState_SwitchFindByUUID(uuid), d);
   const std::string blob = Blob({{"k", "v"}});
   ASSERT_EQ(DVSState_LocalCachePortAdd(s1, "p", NewList()), STATUS_OK);
   EXPECT_EQ(DVSState_PortFindByUUID(uuid, "p"), DVSState_LocalCachePortFind(s1, "p"));
   ASSERT_EQ(DVSState_PortAdd(s1, "p", NewList()), STATUS_OK);
   EXPECT_EQ(DVSState_PortFindByUUID(uuid, "p")->portType, uint32_t(DVS_PORT_ACTIVE));
   EXPECT_EQ(DVSState_PortFindShadowByUUID(uuid, "p"), nullptr);
   ASSERT_EQ(DVSState_PortAddShadow(s1, "p", blob.data(), blob.size()), STATUS_OK);
   EXPECT_EQ(Entries(DVSState_PortFindShadowByUUID(uuid, "p")->data), (Props{{"k", "v"}}));
   ASSERT_EQ(AddPort(d, "p", DVS_PORT_ZOMBIE), STATUS_OK);
   ASSERT_EQ(AddPort(d, "p", DVS_PORT_ZOMBIE), STATUS_OK);
   EXPECT_EQ(Ports(d), (Ids{"p/4", "p/1", "p/2", "p/3", "p/3"}));
   // Other types once each: the port there is handed out, a null list is
   // noticed only for a free id, a refused shadow frees its list.
   DVSDataHandle h = NewList();
   DVSPort *out = nullptr, *zombie = DVSState_PortFindZombie(s1, "p");
   EXPECT_EQ(DVSStatePortAdd(d, "p", h, DVS_PORT_SHADOW, &out), STATUS_EXISTS);
   EXPECT_EQ(out, DVSState_PortFindShadow(s1, "p"));
   EXPECT_EQ(DVSState_PortAddShadow(s1, "p", blob.data(), blob.size()), STATUS_EXISTS);
   EXPECT_EQ(DVSState_LocalCachePortAdd(s1, "p", h), STATUS_EXISTS);
   EXPECT_EQ(DVSState_PortAdd(s1, "p", nullptr), STATUS_EXISTS);
   EXPECT_EQ(DVSState_PortAdd(s1, "q", nullptr), STATUS_BAD_PARAM);
   EXPECT_EQ(DVSState_PortAdd("nope", "q", h), STATUS_NOT_FOUND);
   EXPECT_EQ(DVSState_PortAddShadow(s1, "q", blob.data(), 20), STATUS_BAD_PARAM);
   DVSData_Free(h);
   // Removal goes by type; the first zombie goes first.
   ASSERT_EQ(DVSState_PortRemove(s1, "p"), STATUS_OK);
   EXPECT_EQ(DVSState_PortRemove(s1, "p"), STATUS_NOT_FOUND);
   EXPECT_EQ(DVSState_PortFind(s1, "p")->portType, uint32_t(DVS_PORT_LOCAL_CACHE));
   ASSERT_EQ(DVSState_PortRemoveZombie(s1, "p"), STATUS_OK);
   EXPECT_NE(DVSState_PortFindZombie(s1, "p"), zombie);
   // Freed slots are taken lowest first: walks follow slots, not age.
   ASSERT_EQ(AddPort(d, "new"), STATUS_OK);
   ASSERT_EQ(AddPort(d, "new2"), STATUS_OK);
   EXPECT_EQ(Ports(d), (Ids{"p/4", "new/1", "p/2", "new2/1", "p/3"}));
   ASSERT_EQ(DVSState_PortRemoveShadow(s1, "p"), STATUS_OK);
   ASSERT_EQ(DVSState_LocalCachePortRemove(s1, "p"), STATUS_OK);
   EXPECT_EQ(d->numPorts, 3u);
   EXPECT_EQ(Captured(0, [] { EXPECT_EQ(DVSState_PortRemove("nope", "p"), STATUS_NOT_FOUND); }),
             "Null DVS handle\n");

   // Aliases: the first switch in slot order; by type, active before local
   // cache, the lowest slot on a tie; "unknown" when absent.
   DVSwitch *a = Add("a"), *b = Add("b");
   EXPECT_STREQ(DVS_SwitchName(a), "unknown");
   for (const char *sw : {"b", "a", s1})
      ASSERT_EQ(DVSState_GlobalPropSet(sw, DVS_PROP_SWITCH_ALIAS, "blue", 5, 0), STATUS_OK);
   EXPECT_EQ(DVSState_SwitchFindByAlias("blue"), d);
   ASSERT_EQ(DVSState_GlobalPropSet("b", DVS_PROP_SWITCH_ALIAS, "green", 6, 0), STATUS_OK);
   EXPECT_STREQ(DVS_SwitchName(b), "green");
   ASSERT_EQ(AddPort(b, "q1", DVS_PORT_LOCAL_CACHE, "up"), STATUS_OK);
   EXPECT_EQ(DVSState_PortFindByAliasOnDVS(b, "up"), DVSState_LocalCachePortFind("b", "q1"));
   for (const char *id : {"q2", "q3"})
      ASSERT_EQ(AddPort(b, id, DVS_PORT_ACTIVE, "up"), STATUS_OK);
   ASSERT_EQ(AddPort(b, "q4", DVS_PORT_SHADOW, "up"), STATUS_OK);
   EXPECT_EQ(DVSState_PortFindByAlias("green", "up"), DVSState_PortFind("b", "q2"));
   EXPECT_EQ(DVSState_PortFindShadowByAlias("green", "up"), DVSState_PortFindShadow("b", "q4"));
   EXPECT_EQ(DVSStatePortFindByAlias("green", "up", 4), DVSState_LocalCachePortFind("b", "q1"));
   EXPECT_EQ(DVSState_PortFindByAlias("blue", "up"), nullptr);
   EXPECT_STREQ(DVS_PortAlias(DVSState_PortFind("b", "q3")), "up");
   EXPECT_STREQ(DVS_PortAlias(DVSState_PortFind(s1, "new")), "unknown");
   const std::string longName(200, 'c');
   EXPECT_EQ(DVS_SetClassName(a, longName.c_str()), longName.substr(0, 127));
   EXPECT_EQ(Captured(1, [&] { EXPECT_EQ(DVSState_SwitchRemove(s1), STATUS_OK); }),
             Fmt("DVSState_SwitchRemove %s\nDVSState_PortRemove %s, new\n"
                 "DVSState_PortRemove %s, new2\nDVSState_PortRemove %s, p\n",
                 s1, s1, s1, s1));
}

TEST_F(RegistryTest, SwitchAndPortProperties) {
   DVSwitch *d = Add("s1");
   // An empty value is refused before the switch is looked up.
   EXPECT_EQ(DVSState_HostPropSet("nope", "x", "v", 0, 0), STATUS_FAILURE);
   EXPECT_EQ(DVSState_GlobalPropSet("nope", "x", nullptr, 1, 0), STATUS_FAILURE);
   EXPECT_EQ(DVSState_GlobalPropSet("nope", "x", "v", 1, 0), STATUS_NOT_FOUND);
   EXPECT_EQ(DVSState_HostPropClear("nope", "x"), STATUS_NOT_FOUND);
   const auto count = [](DVSDataEntry *, void *c) { return ++*(int *)c, false; };
   int n = 0;
   EXPECT_EQ(DVSState_GlobalPropForEach(d, count, &n), STATUS_NOT_FOUND);  // no call
   const std::string level1 = Captured(1, [] {
      for (const char *v : {"one", "three"})
         ASSERT_EQ(DVSState_HostPropSet("s1", "a", v, strlen(v) + 1, 0x18), STATUS_OK);
      ASSERT_EQ(DVSState_HostPropSet("s1", "b", "2", 1, 0), STATUS_OK);
      ASSERT_EQ(DVSState_GlobalPropSet("s1", "g", "3", 1, 0), STATUS_OK);
   });
   EXPECT_EQ(level1,
             "DVSState_HostPropSet s1, a\nDVSState_HostPropSet s1, a\n"
             "DVSState_HostPropSet s1, b\nDVSState_GlobalPropSet s1, g\n");
   EXPECT_EQ(Entries(d->hostPropList), (Props{{"a", {"three", 6}}, {"b", "2"}}));
   EXPECT_EQ(Entries(d->globalPropList), (Props{{"g", "3"}}));
   void *val = nullptr;
   uint32_t len = 0;
   ASSERT_EQ(DVSState_HostPropRead(d, "a", &val, &len), STATUS_OK);
   EXPECT_EQ(std::string((char *)val, len), std::string("three", 6));
   EXPECT_EQ(DVSState_GlobalPropRead(d, "a", &val, &len), STATUS_NOT_FOUND);
   EXPECT_EQ(len, 6u);  // left alone
   DVSDataEntry *e = nullptr;
   EXPECT_EQ(Captured(2, [&] { EXPECT_EQ(DVSState_GlobalPropLookup("s1", "g", &e), 0u); }),
             "DVSState_GlobalPropLookup s1, g\n");
   EXPECT_EQ(DVSState_HostPropForEach(d, count, &n), STATUS_NOT_FOUND);
   EXPECT_NE(DVSState_HostPropForEach(
                d, [](DVSDataEntry *, void *c) { return ++*(int *)c > 0; }, &n),
             STATUS_OK);
   EXPECT_EQ(n, 3);
   EXPECT_EQ(DVSState_GlobalPropClear("s1", "a"), STATUS_NOT_FOUND);
   EXPECT_EQ(DVSState_HostPropClear("s1", "a"), STATUS_OK);
   EXPECT_FALSE(DVSState_HostPropIsSet(d, "a"));
   EXPECT_TRUE(DVSState_GlobalPropIsSet(d, "g") && DVSState_HostPropIsSet(d, "b"));

   // Port data; a failing get or clear (not an empty set) says so at level 1.
   ASSERT_EQ(AddPort(d, "p1", DVS_PORT_SHADOW), STATUS_OK);
   DVSPort *p = DVSState_PortFindShadow("s1", "p1");
   const std::string failed =
      "DVSStatePortDataCommon failed to set/get data switch s1,port p1, data x type 2\n";
   EXPECT_EQ(Captured(1,
                      [&] {
                         EXPECT_EQ(DVSState_PortDataGet(p, "x", &val, &len), STATUS_NOT_FOUND);
                         EXPECT_EQ(DVSState_PortDataClear(p, "x"), STATUS_NOT_FOUND);
                         EXPECT_EQ(DVSState_PortDataSet(p, "x", "v", 0, 0), STATUS_FAILURE);
                      }),
             failed + failed);
   n = 0;
   EXPECT_EQ(DVSState_PortDataForEach(p, count, &n), STATUS_NOT_FOUND);
   ASSERT_EQ(DVSState_PortDataSet(p, "x", "val", 4, 0), STATUS_OK);
   EXPECT_EQ(Captured(2, [&] { DVSState_PortDataSet(p, "x", "v2", 3, 0x18); }),
             "DVSState_PortDataSet s1, p1, x\n");
   ASSERT_EQ(DVSState_PortDataGet(p, "x", &val, &len), STATUS_OK);
   EXPECT_EQ(std::string((char *)val, len), std::string("v2", 3));
   EXPECT_EQ(DVSState_PortDataRead(p, "y", &val, &len), STATUS_NOT_FOUND);
   EXPECT_EQ(DVSState_PortDataForEach(p, count, &n), STATUS_NOT_FOUND);
   EXPECT_EQ(n, 1);
   EXPECT_EQ(DVSState_PortDataClear(p, "x"), STATUS_OK);
   EXPECT_TRUE(Entries(p->data).empty());
   // At -1 nothing prints, failures included.
   EXPECT_EQ(Captured(-1,
                      [&] {
                         DVSState_PortDataGet(p, "x", &val, &len);
                         DVSState_SwitchAdd("s1", "x", 1, 7);
                         DVSState_SwitchRemove("nope");
                      }),
             "");
}

// Random adds and removes of a few ids of every type, checked against a
// plain model of the slot table: the lowest free slot is taken, a
// duplicate counts only below the switch limit, finds and removals go to
// the lowest slot, and walks follow the slots.
TEST_F(RegistryTest, PortTableMatchesASlotModel) {
   DVSwitch *d = Add("m", "myclass", 40);
   std::vector<std::pair<std::string, uint32_t>> model(100);  // type 0: free
   auto lowest = [&](const std::string &id, uint32_t type) {
      for (size_t s = 0; s < model.size(); s++)
         if (model[s].second == type && model[s].first == id)
            return int(s);
      return -1;
   };
   std::mt19937 rng(7);
   for (int op = 0; op < 3000; op++) {
      if (op == 1500) {  // a lowered limit leaves the ports above it in place
         d->newMaxPorts = 25;
         DVS_UpdateMaxPorts(d);
      }
      const std::string id = "port" + std::to_string(rng() % 12);
      const uint32_t type = 1 + rng() % 4;
      const int at = lowest(id, type);
      if (rng() % 3 != 0) {
         const int free = lowest("", 0);
         const int limit = int(d->maxPorts);
         const ReturnStatus want = d->numPorts == d->maxPorts ? STATUS_LIMIT_EXCEEDED
                                   : type != DVS_PORT_ZOMBIE && at >= 0 && at < limit
                                      ? STATUS_EXISTS
                                   : free < 0 || free >= limit ? STATUS_LIMIT_EXCEEDED
                                                               : STATUS_OK;
         DVSDataHandle h = NewList();
         DVSPort *out = nullptr;
         ASSERT_EQ(DVSStatePortAdd(d, id.c_str(), h, type, &out), want) << op;
         if (want == STATUS_OK)
            model[free] = {id, type};
         else
            DVSData_Free(h);
         if (want != STATUS_LIMIT_EXCEEDED) {
            EXPECT_EQ(out, d->ports[want == STATUS_OK ? free : at]) << op;
         }
      } else {
         typedef ReturnStatus (*Remove)(const char *, const char *);
         const Remove fns[] = {nullptr, DVSState_PortRemove, DVSState_PortRemoveShadow,
                               DVSState_PortRemoveZombie, DVSState_LocalCachePortRemove};
         ASSERT_EQ(fns[type]("m", id.c_str()), at >= 0 ? STATUS_OK : STATUS_NOT_FOUND) << op;
         if (at >= 0)
            model[at] = {"", 0};
      }
      Ids walk;
      for (size_t s = 0; s < model.size(); s++)
         if (model[s].second != 0)
            walk.push_back(model[s].first + "/" + std::to_string(model[s].second));
      ASSERT_EQ(Ports(d), walk) << op;
      for (int k = 0; k < 12; k++)
         for (uint32_t t = 1; t <= 4; t++) {
            const std::string other = "port" + std::to_string(k);
            const int s = lowest(other, t);
            ASSERT_EQ(DVSState_FindPortByIDAndType(d, other.c_str(), t),
                      s >= 0 ? d->ports[s] : nullptr)
               << op;
         }
   }
}

}  // namespace

// Property list semantics: sizes, names, order, updates, removal, walks.
#include "data_test_support.h"

using namespace dvstest;

namespace {

class ListTest : public DataTest {};

TEST_F(ListTest, RecordLengthsAndLongNames) {
   List l;
   EXPECT_EQ(l.h->serialSize, 16u);
   // The record always keeps 3 to 6 bytes after the value, not the tightest fit.
   const uint32_t want[] = {144, 144, 148, 148, 148, 148, 152, 152, 152, 152, 156};
   for (uint32_t n = 0; n <= 10; ++n) {
      l.Add("p" + std::to_string(n), std::string(n, 'v'));
      EXPECT_EQ(l.h->tail->serialLen, want[n]) << "dataLen " << n;
   }
   Names(l.h);
   for (uint32_t n : {0u, 5u, 6u}) {
      List one;
      one.Add("x", std::string(n, 'v'));
      EXPECT_EQ(one.h->serialSize, n == 0 ? 160u : n == 5 ? 164u : 168u);
   }
   // A 200-character name keeps its first 127 characters.
   std::string longName(200, 'n');
   longName[126] = 'L', longName[127] = 'X';
   l.Add(longName, "v");
   EXPECT_EQ(std::string(l.h->tail->name), longName.substr(0, 127));
   DVSDataEntry *e = nullptr;
   EXPECT_EQ(DVSData_Lookup(l.h, longName.c_str(), &e), STATUS_NOT_FOUND);
   EXPECT_EQ(DVSData_Lookup(l.h, longName.substr(0, 126).c_str(), &e), STATUS_NOT_FOUND);
   EXPECT_EQ(DVSData_Lookup(l.h, longName.substr(0, 127).c_str(), &e), STATUS_OK);
   EXPECT_EQ(e, l.h->tail);
}

TEST_F(ListTest, AccessorsAndDuplicateNames) {
   List l;
   l.Add("dup", "12345", 0x80000019);
   l.Add("other", "o");
   l.Add("dup", "second");
   DVSDataEntry *e = nullptr;
   ASSERT_EQ(DVSData_Lookup(l.h, "dup", &e), STATUS_OK);
   EXPECT_EQ(e, l.h->head);
   EXPECT_STREQ(DVSData_Name(e), "dup");
   EXPECT_EQ(DVSData_PropType(e), 0x80000019u);  // the whole word
   void *data = nullptr;
   EXPECT_EQ(DVSData_Data(e, &data), 5u);
   EXPECT_EQ(std::memcmp(data, "12345", 5), 0);
   EXPECT_TRUE(DVSData_IsSamePropType(e, 0x18));  // bits 2-7 only
   EXPECT_FALSE(DVSData_IsSamePropType(e, 0x19));
   EXPECT_FALSE(DVSData_IsSamePropType(e, 0x10));
   // Removing the first "dup" uncovers the second.
   EXPECT_EQ(DVSData_Remove(l.h, "dup"), STATUS_OK);
   EXPECT_EQ(Value(l.h, "dup"), "second");
   EXPECT_EQ(Names(l.h), (Names_t{"other", "dup"}));
}

TEST_F(ListTest, UpdateResetsFlagInPlaceButKeepsItWhenRelocating) {
   List l;
   l.Add("same", "1234", 0x18);
   l.Add("grow", "1234", 0x18);
   l.Add("keep", "abcd", 0x4);
   uint32_t before = l.h->serialSize;
   DVSDataEntry *same = l.h->head;
   // Same length: rewritten in place, and flag 0 means the default type.
   EXPECT_EQ(DVSData_UpdateProp(l.h, "same", "wxyz", 4), STATUS_OK);
   EXPECT_EQ(l.h->head, same);
   EXPECT_EQ(same->flag, 0x20u);
   EXPECT_EQ(Value(l.h, "same"), "wxyz");
   EXPECT_EQ(l.h->serialSize, before);
   // Another length: the old flag survives and the property moves to the end.
   EXPECT_EQ(DVSData_UpdateProp(l.h, "grow", "123456", 6), STATUS_OK);
   EXPECT_EQ(Names(l.h), (Names_t{"same", "keep", "grow"}));
   EXPECT_EQ(l.h->tail->flag, 0x18u);
   EXPECT_EQ(Value(l.h, "grow"), "123456");
   // An explicit flag wins on both paths; an absent name is appended.
   EXPECT_EQ(DVSData_Update(l.h, "keep", "ABCD", 4, 0x40), STATUS_OK);
   EXPECT_EQ(l.h->head->next->flag, 0x40u);
   EXPECT_EQ(DVSData_Update(l.h, "same", "", 0, 0x8), STATUS_OK);
   EXPECT_EQ(l.h->tail->flag, 0x8u);
   EXPECT_EQ(DVSData_UpdateProp(l.h, "new", "n", 1), STATUS_OK);
   EXPECT_EQ(l.h->tail->flag, 0x20u);
   EXPECT_EQ(Names(l.h), (Names_t{"keep", "grow", "same", "new"}));
}

// Names that share a length, a last character or a prefix with the one
// asked for (as the host's long dotted names do) are never taken for it,
// whether the entries were appended or read from a blob whose name fields
// carry bytes after the terminator.
TEST_F(ListTest, LookupsAndUpdatesMatchWholeNamesOnly) {
   const std::string withTail("ab.port\0rate", 12);
   Blob b = MakeBlob({{"ab.port.rate", 0x20, "A"},
                      {"ab.pORt.rate", 0x20, "B"},
                      {"ab.port.rat", 0x20, "C"},
                      {withTail, 0x20, "D"}});
   DVSDataHandle read = nullptr;
   ASSERT_EQ(DVSData_Deserialize(&read, b.p(), b.size(), TestAlloc, TestFree), STATUS_OK);
   List fromBlob(read);
   List appended;
   appended.Add("ab.port.rate", "A");
   appended.Add("ab.pORt.rate", "B");
   appended.Add("ab.port.rat", "C");
   appended.Add("ab.port", "D");
   for (List *l : {&fromBlob, &appended}) {
      EXPECT_EQ(Value(l->h, "ab.port.rate"), "A");
      EXPECT_EQ(Value(l->h, "ab.pORt.rate"), "B");
      EXPECT_EQ(Value(l->h, "ab.port.rat"), "C");
      EXPECT_EQ(Value(l->h, "ab.port"), "D");
      for (const char *absent : {"ab.port.rates", "ab.portrate", "ab.port.ra", "ab.pOrt.rate", "",
                                 "b.port.rate", "ab.port\x01"}) {
         EXPECT_EQ(Value(l->h, absent), "<absent>") << absent;
      }
      // An update in place touches only its own entry; one of another
      // length moves only its own entry to the end.
      EXPECT_EQ(DVSData_UpdateProp(l->h, "ab.pORt.rate", "b", 1), STATUS_OK);
      EXPECT_EQ(DVSData_UpdateProp(l->h, "ab.port", "dd", 2), STATUS_OK);
      EXPECT_EQ(DVSData_Remove(l->h, "ab.port.rat"), STATUS_OK);
      EXPECT_EQ(Names(l->h), (Names_t{"ab.port.rate", "ab.pORt.rate", "ab.port"}));
      EXPECT_EQ(Value(l->h, "ab.port.rate"), "A");
      EXPECT_EQ(Value(l->h, "ab.pORt.rate"), "b");
      EXPECT_EQ(Value(l->h, "ab.port"), "dd");
   }
}

TEST_F(ListTest, RemoveAndNextKeepTheLinksConsistent) {
   List l;
   DVSDataEntry *e = reinterpret_cast<DVSDataEntry *>(&l);
   EXPECT_EQ(DVSData_Next(l.h, nullptr, &e), STATUS_NOT_FOUND);
   EXPECT_EQ(e, nullptr);
   for (const char *n : {"a", "b", "c", "d", "e"})
      l.Add(n, n, 0x80000010);
   uint32_t flag = 0;
   EXPECT_EQ(DVSDataRemove(l.h, "absent", &flag), STATUS_NOT_FOUND);
   EXPECT_EQ(flag, 0x20u);
   EXPECT_EQ(DVSDataRemove(l.h, "c", &flag), STATUS_OK);
   EXPECT_EQ(flag, 0x80000010u);
   EXPECT_EQ(DVSData_Remove(l.h, "a"), STATUS_OK);
   EXPECT_EQ(DVSDataRemove(l.h, "e", nullptr), STATUS_OK);
   l.Add("f", "f");  // must link after the new tail, not the freed one
   Names_t seen;
   for (e = nullptr; DVSData_Next(l.h, e, &e) == STATUS_OK;)
      seen.push_back(DVSData_Name(e));
   EXPECT_EQ(seen, (Names_t{"b", "d", "f"}));
   EXPECT_EQ(Names(l.h), seen);
   e = l.h->head;
   EXPECT_EQ(DVSData_Next(l.h, l.h->tail, &e), STATUS_NOT_FOUND);
   EXPECT_EQ(e, nullptr);
   for (const char *n : {"d", "f", "b"})
      EXPECT_EQ(DVSData_Remove(l.h, n), STATUS_OK);
   EXPECT_EQ(l.h->head, nullptr);
   l.Add("g", "g");
   EXPECT_EQ(Names(l.h), Names_t{"g"});
}

struct Visit {
   DVSDataHandle h;
   size_t stopAt;  // call that returns true, 0 = none
   bool removeEach;
   Names_t seen;
};

bool Visitor(const char *name, void *data, uint32_t len, uint32_t flag, void *ctx) {
   Visit *v = static_cast<Visit *>(ctx);
   v->seen.push_back(std::string(name) + "=" + std::string((char *)data, len) + "/" +
                     std::to_string(flag));
   EXPECT_TRUE(!v->removeEach || DVSData_Remove(v->h, name) == STATUS_OK) << name;
   return v->seen.size() == v->stopAt;
}

TEST_F(ListTest, ForEachStopsOnTrueAndToleratesRemovalOfTheCurrentEntry) {
   List l;
   l.Add("a", "1", 0x10);
   l.Add("b", "22", 0x18);
   l.Add("c", "", 0x20);
   Visit all{l.h, 0, false, {}}, first{l.h, 1, false, {}}, two{l.h, 2, true, {}};
   DVSData_ForEach(l.h, Visitor, &all);
   EXPECT_EQ(all.seen, (Names_t{"a=1/16", "b=22/24", "c=/32"}));
   DVSData_ForEach(l.h, Visitor, &first);
   EXPECT_EQ(first.seen.size(), 1u);
   DVSData_ForEach(l.h, Visitor, &two);
   EXPECT_EQ(two.seen.size(), 2u);
   EXPECT_EQ(Names(l.h), Names_t{"c"});
}

TEST_F(ListTest, NullArgumentsAreRefused) {
   DVSData_Free(nullptr);
   List l;
   uint32_t len = 0;
   EXPECT_EQ(DVSData_Alloc(nullptr, TestAlloc, TestFree), STATUS_BAD_PARAM);
   EXPECT_EQ(DVSData_Append(nullptr, "x", "1", 1, 0x20), STATUS_BAD_PARAM);
   EXPECT_EQ(DVSData_Update(l.h, nullptr, "1", 1, 0x20), STATUS_BAD_PARAM);
   EXPECT_EQ(DVSData_Lookup(l.h, "a", nullptr), STATUS_BAD_PARAM);
   EXPECT_EQ(DVSData_Serialize(l.h, nullptr, &len, 6), STATUS_BAD_PARAM);
   EXPECT_EQ(DVSData_Deserialize(&l.h, nullptr, 16, TestAlloc, TestFree), STATUS_BAD_PARAM);
   EXPECT_EQ(DVSData_DeserializeGetPropVal(nullptr, 16, "a", &len, 4), STATUS_BAD_PARAM);
}

}  // namespace

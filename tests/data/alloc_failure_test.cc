// Allocation failure at every allocation an operation makes: the status,
// the list left as it was, and no block leaked.
#include "data_test_support.h"

using namespace dvstest;

namespace {

class AllocFailureTest : public DataTest {};

// Runs attempt(n) for n = 1, 2, ... (attempt arms the n-th allocation to
// fail, then runs the operation) until a run never reaches its n-th
// allocation; returns how many runs hit the injected failure.
template <class F>
int ForEachFailure(F attempt) {
   int n = 1;
   for (; n < 64; ++n) {
      attempt(n);
      Disarm();
      if (!g_alloc.injected)
         break;
   }
   return n - 1;
}

void FillThree(List &l) {
   l.Add("a", "1", 0x10);
   l.Add("b", "22", 0x18);
   l.Add("c", "333", 0x20);
}

TEST_F(AllocFailureTest, ListOperations) {
   DVSDataHandle h = reinterpret_cast<DVSDataHandle>(&g_alloc);
   FailNthFromNow(1);
   EXPECT_EQ(DVSData_Alloc(&h, TestAlloc, TestFree), STATUS_NO_MEMORY);
   EXPECT_EQ(h, reinterpret_cast<DVSDataHandle>(&g_alloc));  // untouched

   // Append, and update of an absent name: nothing changes.
   for (bool update : {false, true}) {
      EXPECT_EQ(ForEachFailure([&](int n) {
                   List l;
                   FillThree(l);
                   FailNthFromNow(n);
                   ReturnStatus st = update ? DVSData_Update(l.h, "d", "4444", 4, 0)
                                            : DVSData_Append(l.h, "d", "4444", 4, 0x20);
                   Disarm();
                   EXPECT_EQ(st, g_alloc.injected ? STATUS_NO_MEMORY : STATUS_OK);
                   if (!g_alloc.injected)
                      return;
                   EXPECT_EQ(Names(l.h), (Names_t{"a", "b", "c"}));
                   l.Add("e", "5");  // still usable, tail intact
                   EXPECT_EQ(Names(l.h), (Names_t{"a", "b", "c", "e"}));
                }),
                1);
   }
   // Another length: the old entry is gone even when the new one cannot be made.
   EXPECT_EQ(
      ForEachFailure([](int n) {
         List l;
         FillThree(l);
         FailNthFromNow(n);
         ReturnStatus st = DVSData_UpdateProp(l.h, "a", "longer value", 12);
         Disarm();
         EXPECT_EQ(st, g_alloc.injected ? STATUS_NO_MEMORY : STATUS_OK);
         EXPECT_EQ(Names(l.h), (g_alloc.injected ? Names_t{"b", "c"} : Names_t{"b", "c", "a"}));
      }),
      1);
}

TEST_F(AllocFailureTest, WritersAndReader) {
   List l;
   FillThree(l);
   for (bool entry : {false, true}) {
      EXPECT_EQ(ForEachFailure([&](int n) {
                   void *blob = nullptr;
                   uint32_t len = 0;
                   long before = g_alloc.outstanding;
                   FailNthFromNow(n);
                   ReturnStatus st = entry ? DVSData_SerializeEntry(l.h, "b", &blob, &len)
                                           : DVSData_Serialize(l.h, &blob, &len, 6);
                   Disarm();
                   if (!g_alloc.injected)
                      return DVSData_FreeAssocData(l.h, blob);
                   EXPECT_EQ(st, STATUS_NO_MEMORY);
                   EXPECT_EQ(blob, nullptr);
                   EXPECT_EQ(g_alloc.outstanding, before);
                }),
                1);
   }
   EXPECT_EQ(Names(l.h), (Names_t{"a", "b", "c"}));

   // Reading a 3-record blob allocates the handle and one block per record;
   // a failure at any of them frees the partial list and keeps the handle.
   Blob b = MakeBlob({{"a", 0x10, "1"}, {"b", 0x20, "22"}, {"c", 0x18, "333"}});
   EXPECT_EQ(ForEachFailure([&](int n) {
                DVSDataHandle h = reinterpret_cast<DVSDataHandle>(&b);
                long before = g_alloc.outstanding;
                FailNthFromNow(n);
                ReturnStatus st = DVSData_Deserialize(&h, b.p(), b.size(), TestAlloc, TestFree);
                Disarm();
                if (!g_alloc.injected)
                   return DVSData_Free(h);
                EXPECT_EQ(st, STATUS_NO_MEMORY);
                EXPECT_EQ(h, reinterpret_cast<DVSDataHandle>(&b));
                EXPECT_EQ(g_alloc.outstanding, before);
             }),
             4);
}

TEST_F(AllocFailureTest, LengthsThatOverflowAreRefusedBeforeAllocating) {
   List l;
   const char small[4] = {};
   // (dataLen + 146) wraps, or the record fits but serialSize would wrap.
   for (uint32_t n : {0xffffffffu, 0xffffff6eu, 0xffffff6du, 0xffffff60u}) {
      long calls = g_alloc.calls;
      EXPECT_EQ(DVSData_Append(l.h, "huge", small, n, 0x20), STATUS_NO_MEMORY) << n;
      EXPECT_EQ(DVSData_Update(l.h, "huge", small, n, 0x20), STATUS_NO_MEMORY) << n;
      EXPECT_EQ(g_alloc.calls, calls) << n;
   }
   // With an entry present, a length that alone would fit still wraps the total.
   l.Add("some", std::string(1000, 's'));
   long calls = g_alloc.calls;
   EXPECT_EQ(DVSData_Append(l.h, "huge", small, 0xffffff00u, 0x20), STATUS_NO_MEMORY);
   EXPECT_EQ(g_alloc.calls, calls);
   EXPECT_EQ(Names(l.h), Names_t{"some"});
}

}  // namespace

// Throughput of the property-list hot paths: building a list, writing it
// as a blob, reading the blob back and fetching one value from it.
#include <benchmark/benchmark.h>
#include <dvsdata.h>

#include "memory_reference.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

DVSDataHandle MakeList(int count, uint32_t valueLen) {
   DVSDataHandle h = nullptr;
   if (DVSData_Alloc(&h, malloc, free) != STATUS_OK) {
      std::abort();
   }
   std::vector<uint8_t> value(valueLen, 0x5a);
   char name[64];
   for (int i = 0; i < count; ++i) {
      std::snprintf(name, sizeof name, "com.ostrel.bench.prop%d", i);
      if (DVSData_Append(h, name, value.data(), valueLen, 0x20) != STATUS_OK) {
         std::abort();
      }
   }
   return h;
}

void BM_Append(benchmark::State &state) {
   for (auto _ : state) {
      DVSDataHandle h = MakeList(static_cast<int>(state.range(0)), 16);
      DVSData_Free(h);
   }
   state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Append)->Arg(16)->Arg(256);

void BM_Serialize(benchmark::State &state) {
   DVSDataHandle h = MakeList(static_cast<int>(state.range(0)), 64);
   std::vector<uint8_t> buf(DVSData_SerializedSize(h, 6));
   for (auto _ : state) {
      void *blob = buf.data();
      uint32_t len = static_cast<uint32_t>(buf.size());
      benchmark::DoNotOptimize(DVSData_Serialize(h, &blob, &len, 6));
   }
   state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(buf.size()));
   DVSData_Free(h);
}
BENCHMARK(BM_Serialize)->Arg(16)->Arg(256);

void BM_Deserialize(benchmark::State &state) {
   DVSDataHandle h = MakeList(static_cast<int>(state.range(0)), 64);
   void *blob = nullptr;
   uint32_t len = 0;
   DVSData_Serialize(h, &blob, &len, 6);
   for (auto _ : state) {
      DVSDataHandle out = nullptr;
      benchmark::DoNotOptimize(DVSData_Deserialize(&out, blob, len, malloc, free));
      DVSData_Free(out);
   }
   state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(len));
   DVSData_FreeAssocData(h, blob);
   DVSData_Free(h);
}
BENCHMARK(BM_Deserialize)->Arg(16)->Arg(256);

void BM_GetPropValLast(benchmark::State &state) {
   const int count = static_cast<int>(state.range(0));
   DVSDataHandle h = MakeList(count, 64);
   void *blob = nullptr;
   uint32_t len = 0;
   DVSData_Serialize(h, &blob, &len, 6);
   const std::string last = "com.ostrel.bench.prop" + std::to_string(count - 1);
   uint8_t value[64];
   for (auto _ : state) {
      benchmark::DoNotOptimize(
         DVSData_DeserializeGetPropVal(blob, len, last.c_str(), value, sizeof value));
   }
   DVSData_FreeAssocData(h, blob);
   DVSData_Free(h);
}
BENCHMARK(BM_GetPropValLast)->Arg(16)->Arg(256);

// A list of N properties of 64 bytes written into a caller buffer, beside
// a memcpy of the blob's bytes.  A second reference, gather_us, copies the
// list's record images one memcpy each into the same buffer without a
// checksum: the floor for any writer that starts from separately
// allocated entries.
void BM_SerializeVsMemcpy(benchmark::State &state) {
   DVSDataHandle h = MakeList(static_cast<int>(state.range(0)), 64);
   std::vector<uint8_t> buf(DVSData_SerializedSize(h, 6));
   dvsbench::MemoryReference ref(buf.size());
   double bestGather = 1e9;
   for (auto _ : state) {
      ref.TimeCopy();
      const auto t0 = dvsbench::MemoryReference::Clock::now();
      uint8_t *out = buf.data() + DVSDATA_HEADER_SIZE;
      for (const DVSDataEntry *e = h->head; e != nullptr; e = e->next) {
         std::memcpy(out, &e->serialLen, e->serialLen);
         out += e->serialLen;
      }
      benchmark::ClobberMemory();
      bestGather = std::min(bestGather, dvsbench::MemoryReference::Seconds(t0));
      ref.TimeOperation(state, [&] {
         void *blob = buf.data();
         uint32_t len = static_cast<uint32_t>(buf.size());
         if (DVSData_Serialize(h, &blob, &len, 6) != STATUS_OK) {
            std::abort();
         }
      });
   }
   ref.Report(state);
   state.counters["gather_us"] = bestGather * 1e6;
   DVSData_Free(h);
}
BENCHMARK(BM_SerializeVsMemcpy)->Arg(16)->Arg(256)->Arg(4096)->UseManualTime();

// The blob of the previous row read back into a new list, beside a memcpy
// of the blob's bytes.  Only the read is timed; releasing the list is
// DVSData_Free's cost (BM_Deserialize above times both).
void BM_DeserializeVsMemcpy(benchmark::State &state) {
   DVSDataHandle h = MakeList(static_cast<int>(state.range(0)), 64);
   void *blob = nullptr;
   uint32_t len = 0;
   if (DVSData_Serialize(h, &blob, &len, 6) != STATUS_OK) {
      std::abort();
   }
   dvsbench::MemoryReference ref(len);
   for (auto _ : state) {
      ref.TimeCopy();
      DVSDataHandle out = nullptr;
      ref.TimeOperation(state, [&] {
         if (DVSData_Deserialize(&out, blob, len, malloc, free) != STATUS_OK) {
            std::abort();
         }
      });
      DVSData_Free(out);
   }
   ref.Report(state);
   DVSData_FreeAssocData(h, blob);
   DVSData_Free(h);
}
BENCHMARK(BM_DeserializeVsMemcpy)->Arg(16)->Arg(256)->Arg(4096)->UseManualTime();

}  // namespace

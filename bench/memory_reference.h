// Memory-speed reference for the blob benchmarks: each timed operation is
// paired, iteration by iteration, with a memcpy of as many bytes, so that
// both see the same machine load.  The rows report the operation's time
// and, as counters, the memcpy time and their ratio (memcpy time divided by
// operation time: 1.0 means the operation runs at memory speed).  The best
// of all iterations is used for the ratio, which keeps it stable on a
// loaded machine.
#ifndef DVS_BENCH_MEMORY_REFERENCE_H
#define DVS_BENCH_MEMORY_REFERENCE_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <vector>

namespace dvsbench {

class MemoryReference {
  public:
   explicit MemoryReference(size_t bytes) : src_(bytes, 0x5a), dst_(bytes) {}

   // Times one memcpy of the reference size.
   void TimeCopy() {
      const auto t0 = Clock::now();
      std::memcpy(dst_.data(), src_.data(), src_.size());
      benchmark::ClobberMemory();
      best_copy_ = std::min(best_copy_, Seconds(t0));
   }

   // Times fn once as the operation and hands the time to the benchmark
   // (rows using this are registered with UseManualTime).
   template <typename Fn>
   void TimeOperation(benchmark::State &state, Fn fn) {
      const auto t0 = Clock::now();
      fn();
      benchmark::ClobberMemory();
      RecordOperation(state, Seconds(t0));
   }

   // Hands an operation time measured by the caller to the benchmark.
   void RecordOperation(benchmark::State &state, double s) {
      best_op_ = std::min(best_op_, s);
      state.SetIterationTime(s);
   }

   using Clock = std::chrono::steady_clock;
   static double Seconds(Clock::time_point t0) {
      return std::chrono::duration<double>(Clock::now() - t0).count();
   }

   void Report(benchmark::State &state) const {
      state.counters["memcpy_us"] = best_copy_ * 1e6;
      state.counters["best_us"] = best_op_ * 1e6;
      state.counters["x_memcpy"] = best_op_ > 0 ? best_copy_ / best_op_ : 0;
      state.counters["bytes"] = static_cast<double>(src_.size());
      state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(src_.size()));
   }

  private:
   std::vector<unsigned char> src_, dst_;
   double best_copy_ = std::numeric_limits<double>::max();
   double best_op_ = std::numeric_limits<double>::max();
};

}  // namespace dvsbench

#endif  // DVS_BENCH_MEMORY_REFERENCE_H

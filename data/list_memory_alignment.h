// The alignment that scratch and arena list memory give every block: what
// the C library's own allocations guarantee, so that a list cannot tell
// where its entries came from.
#ifndef DVS_DATA_LIST_MEMORY_ALIGNMENT_H
#define DVS_DATA_LIST_MEMORY_ALIGNMENT_H

#include <cstddef>

namespace dvs::data {

constexpr size_t kListMemoryAlignment = alignof(std::max_align_t);

// size rounded up to the alignment; callers keep size well below SIZE_MAX.
constexpr size_t AlignedForList(size_t size) {
   return (size + kListMemoryAlignment - 1) & ~(kListMemoryAlignment - 1);
}

}  // namespace dvs::data

#endif  // DVS_DATA_LIST_MEMORY_ALIGNMENT_H

// Where the property lists that a blob reader builds for the registry take
// their entries from.  The registry's own lists come from the C heap; a
// caller that rebuilds the registry only to walk it once and clear it can
// hand the reader cheaper memory that is released all at once.
#ifndef DVS_STATE_LIST_MEMORY_H
#define DVS_STATE_LIST_MEMORY_H

#include <dvsdata.h>

#include <cstdint>
#include <cstdlib>

namespace dvs::state {

struct ListMemory {
   DVSDataAllocFn alloc;
   DVSDataFreeFn free;
};

inline constexpr ListMemory kHeapListMemory{std::malloc, std::free};

// DVSState_ConfigDeserialize, with every property list it builds taking
// its memory from `memory`.  The caller must clear the registry before
// that memory goes.
ReturnStatus ConfigDeserializeWith(const void *blob, uint32_t len, ListMemory memory);

}  // namespace dvs::state

#endif  // DVS_STATE_LIST_MEMORY_H

// The index that keeps port adds, removals and finds by id at constant
// cost on average however many slots a switch has.  It lives in the switch
// record's own allocation, after the port slots, so a switch needs no
// further allocation for it and no port operation can fail for lack of
// memory in the index.
//
// It holds two things:
// - the occupancy of the slots in two levels of bit words (a bit per slot,
//   and a bit per word of slots telling that the word is full), which
//   gives the lowest free slot in a few word reads;
// - an open-addressing table from a hash of the port id to the slot, with
//   one entry per port (ids repeat: an active and a shadow port, zombies).
//   The port type is not part of the key: it is read from the port itself
//   on every lookup, because callers may change it on a live port.
//
// The table is at most half full (twice as many entries as slots), so
// probe runs stay short.  The slot bitmap of the switch record stays the
// authority for walk order; this index only answers "which slot".
#ifndef DVS_STATE_PORT_INDEX_H
#define DVS_STATE_PORT_INDEX_H

#include <dvsstate.h>

#include <cstddef>
#include <cstdint>

namespace dvs::state {

class PortIndex {
  public:
   static constexpr uint32_t kNone = UINT32_MAX;

   // Bytes that an index for numSlots slots needs, or 0 when that does not
   // fit in memory sizes.
   static size_t BytesFor(uint32_t numSlots);
   // Sets up an empty index in zeroed memory of BytesFor(numSlots) bytes.
   static PortIndex *InitAt(void *zeroed, uint32_t numSlots);

   // The lowest free slot, or kNone when every slot is used.
   uint32_t LowestFree() const;

   // Records the port just placed in `slot` / about to leave `slot`.
   void Insert(const DVSPort *port, uint32_t slot);
   void Erase(const DVSPort *port, uint32_t slot);

   // The lowest slot holding a port of this id and type, or kNone.
   uint32_t Find(DVSPort *const *ports, const char *id, uint32_t type) const;

  private:
   struct Entry {
      uint32_t slotPlusOne;  // 0: empty
      uint32_t hash;
   };

   static uint32_t Hash(const char *id);
   Entry *Entries() const;
   uint64_t *SlotWords() const;
   uint64_t *FullWords() const;
   void MarkUsed(uint32_t slot);
   void MarkFree(uint32_t slot);

   uint32_t numSlots_;
   uint32_t mask_;  // table size - 1
   uint32_t slotWords_;
   uint32_t fullWords_;
};

// The index of a switch, kept behind its port slots.
PortIndex *PortIndexOf(const DVSwitch *dvs);

}  // namespace dvs::state

#endif  // DVS_STATE_PORT_INDEX_H

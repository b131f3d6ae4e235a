// The per-switch port index; see port_index.h.
#include "state/port_index.h"

#include <hostlibs.h>

#include <cstring>
#include <new>

namespace dvs::state {
namespace {

constexpr uint32_t kWordBits = 64;

uint64_t WordsFor(uint64_t bits) {
   return (bits + kWordBits - 1) / kWordBits;
}

// Table size: a power of two of at least twice the slots.
uint64_t TableSizeFor(uint32_t numSlots) {
   uint64_t size = 2;
   while (size < 2 * uint64_t{numSlots}) {
      size *= 2;
   }
   return size;
}

}  // namespace

size_t PortIndex::BytesFor(uint32_t numSlots) {
   const uint64_t table = TableSizeFor(numSlots);
   const uint64_t slotWords = WordsFor(numSlots);
   const uint64_t bytes = sizeof(PortIndex) + table * sizeof(Entry) +
                          (slotWords + WordsFor(slotWords)) * sizeof(uint64_t);
   if (table > UINT32_MAX || bytes > SIZE_MAX / 2) {
      return 0;
   }
   return static_cast<size_t>(bytes);
}

PortIndex *PortIndex::InitAt(void *zeroed, uint32_t numSlots) {
   auto *index = new (zeroed) PortIndex;
   index->numSlots_ = numSlots;
   index->mask_ = static_cast<uint32_t>(TableSizeFor(numSlots) - 1);
   index->slotWords_ = static_cast<uint32_t>(WordsFor(numSlots));
   index->fullWords_ = static_cast<uint32_t>(WordsFor(index->slotWords_));
   return index;
}

PortIndex::Entry *PortIndex::Entries() const {
   static_assert(sizeof(PortIndex) % alignof(uint64_t) == 0);
   return reinterpret_cast<Entry *>(const_cast<PortIndex *>(this) + 1);
}

uint64_t *PortIndex::SlotWords() const {
   return reinterpret_cast<uint64_t *>(Entries() + mask_ + 1);
}

uint64_t *PortIndex::FullWords() const {
   return SlotWords() + slotWords_;
}

uint32_t PortIndex::Hash(const char *id) {
   // FNV-1a: port ids are short texts, often differing only at the end.
   uint32_t h = 2166136261u;
   for (const unsigned char *p = reinterpret_cast<const unsigned char *>(id); *p != 0; ++p) {
      h = (h ^ *p) * 16777619u;
   }
   return h;
}

void PortIndex::MarkUsed(uint32_t slot) {
   uint64_t *words = SlotWords();
   const uint32_t w = slot / kWordBits;
   words[w] |= uint64_t{1} << (slot % kWordBits);
   if (words[w] == ~uint64_t{0}) {
      FullWords()[w / kWordBits] |= uint64_t{1} << (w % kWordBits);
   }
}

void PortIndex::MarkFree(uint32_t slot) {
   const uint32_t w = slot / kWordBits;
   SlotWords()[w] &= ~(uint64_t{1} << (slot % kWordBits));
   FullWords()[w / kWordBits] &= ~(uint64_t{1} << (w % kWordBits));
}

uint32_t PortIndex::LowestFree() const {
   const uint64_t *full = FullWords();
   for (uint32_t f = 0; f < fullWords_; ++f) {
      if (full[f] == ~uint64_t{0}) {
         continue;
      }
      // Bits of the full-word map past the last word of slots are never
      // set, and neither are slot bits past the last slot, so a "free"
      // answer past the end means there is none.
      const uint32_t w = f * kWordBits + static_cast<uint32_t>(__builtin_ctzll(~full[f]));
      if (w >= slotWords_) {
         return kNone;
      }
      const uint64_t used = SlotWords()[w];
      const uint32_t slot = w * kWordBits + static_cast<uint32_t>(__builtin_ctzll(~used));
      return slot < numSlots_ ? slot : kNone;
   }
   return kNone;
}

void PortIndex::Insert(const DVSPort *port, uint32_t slot) {
   const uint32_t h = Hash(port->id);
   Entry *entries = Entries();
   uint32_t i = h & mask_;
   while (entries[i].slotPlusOne != 0) {
      i = (i + 1) & mask_;
   }
   entries[i] = Entry{slot + 1, h};
   MarkUsed(slot);
}

void PortIndex::Erase(const DVSPort *port, uint32_t slot) {
   MarkFree(slot);
   Entry *entries = Entries();
   uint32_t i = Hash(port->id) & mask_;
   while (entries[i].slotPlusOne != slot + 1) {
      if (entries[i].slotPlusOne == 0) {
         return;  // not indexed: nothing to undo
      }
      i = (i + 1) & mask_;
   }
   // Close the gap: move back every later entry of the run that would no
   // longer be reachable from its home position across the hole.
   for (uint32_t j = (i + 1) & mask_; entries[j].slotPlusOne != 0; j = (j + 1) & mask_) {
      const uint32_t home = entries[j].hash & mask_;
      const bool reachable = i <= j ? (i < home && home <= j) : (i < home || home <= j);
      if (!reachable) {
         entries[i] = entries[j];
         i = j;
      }
   }
   entries[i] = Entry{0, 0};
}

uint32_t PortIndex::Find(DVSPort *const *ports, const char *id, uint32_t type) const {
   const uint32_t h = Hash(id);
   const Entry *entries = Entries();
   uint32_t best = kNone;
   for (uint32_t i = h & mask_; entries[i].slotPlusOne != 0; i = (i + 1) & mask_) {
      if (entries[i].hash != h) {
         continue;
      }
      const uint32_t slot = entries[i].slotPlusOne - 1;
      const DVSPort *port = ports[slot];
      if (slot < best && port != nullptr && port->portType == type &&
          std::strcmp(port->id, id) == 0) {
         best = slot;
      }
   }
   return best;
}

PortIndex *PortIndexOf(const DVSwitch *dvs) {
   if (dvs == nullptr || dvs->portBitmap == nullptr) {
      return nullptr;
   }
   // The record is one block: the fields, one pointer per slot, the index.
   auto *slotsEnd = reinterpret_cast<const uint8_t *>(dvs->ports + dvs->portBitmap->numBits);
   return reinterpret_cast<PortIndex *>(const_cast<uint8_t *>(slotsEnd));
}

}  // namespace dvs::state

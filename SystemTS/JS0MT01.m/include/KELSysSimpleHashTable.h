// KELSysSimpleHashTable.h - an open hash set of opaque pointers with
// caller-supplied hash and equality functions, kept in one block with its
// entries dense, and the two functions that make it a set of pointers.
#ifndef KELSYSSIMPLEHASHTABLE_H
#define KELSYSSIMPLEHASHTABLE_H

#include <cstdint>

#include "SystemTSCommon.h"

namespace systemts::detail {
struct SimpleHashCore;
}

// Hash of a pointer for pointer sets: the address shifted right by 3 bits,
// truncated to 32 bits. Threads: stateless.
SYSTEMTS_API unsigned int KELSimpleHashIt(void* item);

// Equality of pointers for pointer sets: 1 when `a` and `b` are the same
// pointer, else 0. Threads: stateless.
SYSTEMTS_API int KELSimpleHashCompare(void* a, void* b);

// A set of items (opaque pointers) with chained buckets. One malloc block
// holds the bucket heads and, after them, an entry array of the same length:
// the bucket count is also the capacity. Entries sit at positions 0 to
// Size()-1 with no holes, so Get(i) and Next walk them as an array.
//
// Threads: no locking; callers guard a table shared between threads.
// Ownership: items are never owned, copied or freed; the table frees only
// its own block.
// Failure: allocation failure while growing leaves the table as it was and
// is reported as -1 (or null). Nothing throws.
//
// Sizes: a table built for r items gets UpToNiceModulo(r) buckets, at least
// 11. It grows, to UpToNiceModulo(twice the bucket count), only when an
// insert finds every entry in use: the twelfth insert into 11 buckets gives
// 23. After a removal leaves `count` entries, with 3 * count below the bucket
// count and count at least 12, it shrinks to UpToNiceModulo(count * 1.1)
// buckets (the product truncated).
//
// Decisions of this implementation:
// - A null hash or equality function stands for KELSimpleHashIt or
//   KELSimpleHashCompare.
// - When both functions are KELSimpleHashIt and KELSimpleHashCompare, the
//   table computes them inline instead of calling them; results are the same.
// - For such pointer sets, Locate and LocateBucket are compiled into the
//   caller (the functions below). A lookup in a large table is two dependent
//   cache misses and a handful of instructions, and a call into the shared
//   object per lookup measured about half again as long: the processor keeps
//   fewer lookups in flight across calls. Other tables take one call, as
//   before. The price is that the block layout below, the tag bit and the
//   bucket rule (hash % bucket count) are part of the binary interface: a
//   change to any of them changes the library's major version. The two
//   functions stay exported for callers that take their address.
// - The object keeps its five documented fields and its size. The storage
//   field points at the bucket heads, with its lowest bit set (malloc blocks
//   leave it free) when the functions are the pointer-set ones; the block
//   also keeps, after the entries, the offset of the heads in the allocation.
// - Blocks of 32 MiB and more (tables of about 1.4 million buckets and up)
//   are taken with calloc, one huge page longer, with the heads starting on
//   a 2 MiB boundary, and advised to the kernel as transparent huge pages
//   (madvise): one page fault per 2 MiB instead of per 4 KiB makes building
//   large tables several times cheaper, and lookups stop missing the TLB.
//   Only advice.
// - Growing and shrinking link every entry again at its own position; the
//   result is what inserting the items again in entry order gives, but the
//   equality function is not called (the items are already known distinct).
// - If construction could not allocate even after halving the request
//   (a request of 20 or less that fails), the table has no storage: Size()
//   is 0, lookups give null, inserts give -1 (null), ReAllocate gives -1.
// - Copying is disabled: the block cannot be shared.
//
// The hash function must give the same value for equal items, and the
// equality function must be consistent with it; both are called with the
// stored item first.
class SYSTEMTS_API KELSysSimpleHashTable {
 public:
  // The bit of the storage field that marks a pointer set (see the
  // decisions above: part of the binary interface).
  static constexpr uintptr_t kPointerSetBit = 1;

  // One entry of the array: the item and the next entry of its bucket's
  // chain (null at the chain's end).
  struct Entry {
    void* item;
    Entry* next;
  };

  // Builds an empty table for about `size` items (see Sizes above). When the
  // block cannot be allocated, the request is halved (towards zero) and tried
  // again while it stays above 20.
  KELSysSimpleHashTable(int size, unsigned int (*hash)(void*), int (*equal)(void*, void*));
  // Frees the block; items are not touched.
  ~KELSysSimpleHashTable();

  KELSysSimpleHashTable(const KELSysSimpleHashTable&) = delete;
  KELSysSimpleHashTable& operator=(const KELSysSimpleHashTable&) = delete;

  // Adds `item` unless an equal item is present. Returns 1 when added, 0 when
  // an equal item was present (also for the very same pointer, and the count
  // is unchanged), -1 when the table had to grow and could not.
  int Insert(void* item);
  // Like Insert, returning the item now in the table: `item` when added, the
  // equal item already present otherwise; null when the table could not grow.
  void* InsertAndReturn(void* item);
  // Removes the entry whose item equals `item` and returns the stored item;
  // null when absent. The item that held the last position moves into the
  // freed one, so positions seen by Get and Next change. May shrink the table.
  void* Remove(void* item);

  // The stored item equal to `item`, or null.
  SYSTEMTS_API void* Locate(void* item) const {
    const uintptr_t storage = reinterpret_cast<uintptr_t>(_storage);
    // An equal stored pointer is `item` itself: no load of it.
    if (storage & kPointerSetBit) return FindPointer(storage, item) != nullptr ? item : nullptr;
    const Entry* e = Find(item);
    return e != nullptr ? e->item : nullptr;
  }
  // The entry holding the item equal to `item`, or null. The entry belongs to
  // the table and is valid until the next insertion or removal.
  SYSTEMTS_API Entry* LocateBucket(void* item) const {
    const uintptr_t storage = reinterpret_cast<uintptr_t>(_storage);
    return const_cast<Entry*>(storage & kPointerSetBit ? FindPointer(storage, item) : Find(item));
  }
  // The first non-null stored item of bucket `key` modulo the bucket count
  // whose hash equals `key`, or null.
  void* KeyLocate(unsigned int key) const;
  // With null: the item at position 0 (null when empty). Otherwise the item at
  // the position after the stored item equal to `item`; null after the last
  // position or when no stored item equals `item`.
  void* Next(void* item) const;
  // The next item along the chain of the stored item equal to `item` whose
  // hash equals `item`'s hash; null for a null argument, when no stored item
  // equals `item`, or when none follows.
  void* NextWithKey(void* item) const;
  // The item at position `i` for 0 <= i < Size(), else null.
  void* Get(int i) const;
  // The number of items.
  int Size() const;
  // Empties the table (count 0, every bucket head null) without shrinking it.
  void RemoveAll();
  // Does nothing; kept for callers that ask for statistics.
  void PrintStats() const;

  // The first value from `n` upwards that none of the primes 2, 3, 5, 7, 11,
  // 13, 17, 19 divides, a prime counting only when it is below the value (so
  // the primes themselves are accepted). Comparison and division are unsigned
  // 32-bit, and the result wraps the same way: 0 gives 0, 4 gives 5, 10 gives
  // 11, 20 gives 23, 24 gives 29, 100 gives 101, 1000 gives 1009, 529 gives 529.
  static int UpToNiceModulo(int n);

  // Rebuilds the table with UpToNiceModulo(n) buckets, or UpToNiceModulo of
  // twice the bucket count when n is below 1, keeping every item at its
  // position. When that is fewer buckets than items, the count is doubled
  // (and made nice) until they fit, as inserting them again would. Returns 0,
  // or -1 with the table unchanged when the block cannot be allocated, the
  // bucket count would pass INT_MAX, or the table has no storage.
  int ReAllocate(int n);

 private:
  friend struct systemts::detail::SimpleHashCore;

  // The lookup of a pointer set, from its tagged storage field: bucket heads
  // at the untagged address, entries right after them.
  const Entry* FindPointer(uintptr_t storage, void* item) const {
    Entry* const* heads = reinterpret_cast<Entry* const*>(storage - kPointerSetBit);
    const uint32_t hash = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(item) >> 3);
    for (const Entry* e = heads[hash % static_cast<uint32_t>(_bucketCount)]; e != nullptr; e = e->next)
      if (e->item == item) return e;
    return nullptr;
  }
  // The lookup of any table, with its own functions; null without storage.
  const Entry* Find(void* item) const;

  int (*_equal)(void*, void*);
  unsigned int (*_hash)(void*);
  Entry** _storage;  // bucket heads, entries, offset; lowest bit: pointer set
  int _bucketCount;
  int _count;
};

#endif  // KELSYSSIMPLEHASHTABLE_H

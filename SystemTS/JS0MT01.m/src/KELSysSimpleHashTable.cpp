// KELSysSimpleHashTable.cpp - the pointer hash set.
//
// Layout of the one block, for n buckets:
//   [lead bytes] Entry* heads[n] | Entry entries[n] | uint64_t lead
// The lead is the number of bytes malloc gave before the heads: 0 but for
// large blocks, whose heads start on a huge-page boundary (see newBlock).
//
// The bucket is hash % n in unsigned 32-bit arithmetic, one hardware
// division. A multiply-shift replacement with a per-block constant measured
// slower in lookups on current processors: it needs that constant loaded
// before the bucket's address is known.
//
// The storage field holds the heads' address with its lowest bit set when
// the table uses the pointer-set functions (malloc blocks are at least 8-byte
// aligned, so the bit is free): the inline path is then chosen from the one
// field a lookup reads first, without another memory access.
//
// Every operation is written once as a template over the hash and equality
// it uses: the caller's function pointers, or the pointer-set functions.
#include "KELSysSimpleHashTable.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>

#include "SysCalls.h"
using Entry = KELSysSimpleHashTable::Entry;

unsigned int KELSimpleHashIt(void* item) {
  return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(item) >> 3);
}

int KELSimpleHashCompare(void* a, void* b) { return a == b ? 1 : 0; }

namespace systemts::detail {
namespace {

// The pointer-set functions, inline.
struct PointerOps {
  static uint32_t hash(void* item) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(item) >> 3); }
  static bool equal(void* stored, void* item) { return stored == item; }
};

// The caller's functions, one indirect call each.
struct CallerOps {
  unsigned int (*hashFn)(void*);
  int (*equalFn)(void*, void*);
  uint32_t hash(void* item) const { return hashFn(item); }
  bool equal(void* stored, void* item) const { return equalFn(stored, item) != 0; }
};

// The block of `buckets` buckets: heads, entries, lead.
size_t blockBytes(uint32_t buckets) { return size_t{buckets} * 3 * sizeof(void*) + sizeof(uint64_t); }
uint64_t* leadOf(Entry** heads, uint32_t buckets) { return reinterpret_cast<uint64_t*>(heads + size_t{buckets} * 3); }

// The storage field: the heads' address, its lowest bit set for pointer sets.
constexpr uintptr_t kPointerSetBit = KELSysSimpleHashTable::kPointerSetBit;
static_assert(alignof(std::max_align_t) > kPointerSetBit, "malloc blocks leave the lowest bit free");
Entry** tagged(Entry** block, bool pointerSet) {
  return reinterpret_cast<Entry**>(reinterpret_cast<uintptr_t>(block) | (pointerSet ? kPointerSetBit : 0));
}
Entry** untagged(Entry** storage) {
  return reinterpret_cast<Entry**>(reinterpret_cast<uintptr_t>(storage) & ~kPointerSetBit);
}

// Blocks from this size on are mapped on their own by malloc (its largest
// threshold for choosing a mapping). Their fresh pages cost one fault each,
// which is most of the time spent building a large table, and lookups in
// them miss the TLB on almost every access. Such blocks therefore ask for
// transparent huge pages: one fault for 2 MiB, and a TLB that covers the
// whole table. The kernel backs only whole aligned 2 MiB ranges with huge
// pages, so the heads start on such a boundary inside a block one huge page
// longer; the pages before them are never touched. Only advice: when the
// kernel declines, nothing changes.
constexpr size_t kHugePageAdviceBytes = size_t{32} << 20;
constexpr uintptr_t kHugePageBytes = uintptr_t{2} << 20;

bool isPointerSet(unsigned int (*hash)(void*), int (*equal)(void*, void*)) {
  return hash == &KELSimpleHashIt && equal == &KELSimpleHashCompare;
}

// Allocates a block with null heads and its trailer set; null on failure.
// A large block comes from calloc: it is a fresh mapping, zero already, so
// its heads need no clearing pass (and its pages are not touched before the
// huge-page advice).
Entry** newBlock(uint32_t buckets) {
  const size_t bytes = blockBytes(buckets);
  if (bytes < kHugePageAdviceBytes) {
    auto* heads = static_cast<Entry**>(systemts::detail::g_sys.malloc(bytes));
    if (heads == nullptr) return nullptr;
    std::memset(heads, 0, size_t{buckets} * sizeof(Entry*));
    *leadOf(heads, buckets) = 0;
    return heads;
  }
  char* const raw = static_cast<char*>(systemts::detail::g_sys.calloc(1, bytes + kHugePageBytes));
  if (raw == nullptr) return nullptr;
  const uintptr_t begin = (reinterpret_cast<uintptr_t>(raw) + kHugePageBytes - 1) & ~(kHugePageBytes - 1);
  // Up to the last whole huge page inside the block.
  const uintptr_t end = (reinterpret_cast<uintptr_t>(raw) + bytes + kHugePageBytes) & ~(kHugePageBytes - 1);
  madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
  auto* heads = reinterpret_cast<Entry**>(begin);
  *leadOf(heads, buckets) = begin - reinterpret_cast<uintptr_t>(raw);
  return heads;
}

// Frees a block of newBlock; null does nothing.
void freeBlock(Entry** heads, uint32_t buckets) {
  if (heads == nullptr) return;
  std::free(reinterpret_cast<char*>(heads) - *leadOf(heads, buckets));
}

constexpr uint32_t kNicePrimes[] = {2, 3, 5, 7, 11, 13, 17, 19};

}  // namespace

// A view of a table's block, and the operations on it.
struct SimpleHashCore {
  struct View {
    Entry** heads;
    Entry* entries;
    uint32_t n;

    View() : heads(nullptr), entries(nullptr), n(0) {}
    View(Entry** block, int buckets)
        : heads(block), entries(reinterpret_cast<Entry*>(block + buckets)), n(static_cast<uint32_t>(buckets)) {}
    explicit View(const KELSysSimpleHashTable& t) : View(untagged(t._storage), t._bucketCount) {}
    uint32_t bucket(uint32_t h) const { return h % n; }
  };

  static CallerOps callerOps(const KELSysSimpleHashTable& t) { return {t._hash, t._equal}; }
  // The view of a pointer set's block, decided from the storage field alone;
  // false for other tables and for a table without storage.
  static bool pointerSetView(const KELSysSimpleHashTable& t, View* v) {
    const uintptr_t storage = reinterpret_cast<uintptr_t>(t._storage);
    if (__builtin_expect((storage & kPointerSetBit) == 0, 0)) return false;
    *v = View(reinterpret_cast<Entry**>(storage - kPointerSetBit), t._bucketCount);
    return true;
  }

  // Runs `f` with the table's operations.
  template <class F>
  static decltype(auto) dispatch(const KELSysSimpleHashTable& t, F&& f) {
    if (isPointerSet(t._hash, t._equal)) return f(PointerOps{});
    return f(callerOps(t));
  }

  // The entry whose item equals `item`, with the link that points at it.
  struct Found {
    Entry** link;
    Entry* entry;
  };
  template <class Ops>
  static Found find(const View& v, void* item, Ops ops) {
    Entry** link = &v.heads[v.bucket(ops.hash(item))];
    for (Entry* e = *link; e != nullptr; e = e->next) {
      if (ops.equal(e->item, item)) return {link, e};
      link = &e->next;
    }
    return {link, nullptr};  // link: the end of the chain
  }
  // The public operations are written so that the pointer-set case is a short
  // leaf function: a lookup is a few instructions around two memory accesses,
  // and the fewer instructions each lookup takes, the more lookups the
  // processor keeps in flight. The caller's functions, growth and shrinking
  // are out of line.

  __attribute__((noinline)) static const Entry* locateSlow(const KELSysSimpleHashTable& t, void* item) {
    if (t._storage == nullptr) return nullptr;
    const View v(t);
    return dispatch(t, [&](auto ops) { return find(v, item, ops).entry; });
  }

  // Result of an insertion: status 1 added, 0 present, -1 could not grow;
  // kFull (only from tryInsert) when the table must grow first.
  static constexpr int kFull = 2;
  struct Inserted {
    void* item;
    int status;
  };
  template <class Ops>
  static Inserted tryInsert(KELSysSimpleHashTable& t, const View& v, void* item, Ops ops) {
    const Found f = find(v, item, ops);
    if (f.entry != nullptr) return {f.entry->item, 0};
    if (t._count == t._bucketCount) return {nullptr, kFull};
    Entry* e = &v.entries[t._count++];
    e->item = item;
    e->next = nullptr;
    *f.link = e;
    return {item, 1};
  }
  __attribute__((noinline)) static Inserted insertSlow(KELSysSimpleHashTable& t, void* item) {
    if (t._storage == nullptr) return {nullptr, -1};
    return dispatch(t, [&](auto ops) -> Inserted {
      for (;;) {
        const Inserted r = tryInsert(t, View(t), item, ops);
        if (r.status != kFull) return r;
        if (t.ReAllocate(0) != 0) return {nullptr, -1};
      }
    });
  }
  static Inserted insert(KELSysSimpleHashTable& t, void* item) {
    View v;
    if (pointerSetView(t, &v)) {
      const Inserted r = tryInsert(t, v, item, PointerOps{});
      if (__builtin_expect(r.status != kFull, 1)) return r;
    }
    return insertSlow(t, item);
  }

  template <class Ops>
  static void* remove(KELSysSimpleHashTable& t, const View& v, void* item, Ops ops) {
    if (t._count == 0) return nullptr;
    if (t._count == 1) {
      Entry** head = &v.heads[v.bucket(ops.hash(item))];
      if (*head == nullptr || !ops.equal((*head)->item, item)) return nullptr;
      void* removed = (*head)->item;
      *head = nullptr;
      t._count = 0;
      return removed;
    }
    const Found f = find(v, item, ops);
    if (f.entry == nullptr) return nullptr;
    Entry* const hole = f.entry;
    void* const removed = hole->item;
    *f.link = hole->next;

    // Keep the entries dense: the last entry moves into the hole. (Comparing
    // positions, not items, is the same test for an equality function that is
    // consistent with the hash, and stays safe for one that is not.)
    Entry* const last = &v.entries[t._count - 1];
    if (last != hole) {
      Entry** link = &v.heads[v.bucket(ops.hash(last->item))];
      while (*link != nullptr && *link != last) link = &(*link)->next;
      if (*link == nullptr) link = linkTo(v, static_cast<uint32_t>(t._count), last);
      *link = hole;
      hole->item = last->item;
      hole->next = last->next;
    }
    const int count = --t._count;
    if (3 * int64_t{count} < t._bucketCount && count >= 12) return shrink(t, count, removed);
    return removed;
  }
  __attribute__((noinline)) static void* removeSlow(KELSysSimpleHashTable& t, void* item) {
    if (t._storage == nullptr) return nullptr;
    return dispatch(t, [&](auto ops) { return remove(t, View(t), item, ops); });
  }
  static void* remove(KELSysSimpleHashTable& t, void* item) {
    View v;
    if (pointerSetView(t, &v)) return remove(t, v, item, PointerOps{});
    return removeSlow(t, item);
  }
  __attribute__((noinline)) static void* shrink(KELSysSimpleHashTable& t, int count, void* removed) {
    t.ReAllocate(static_cast<int>(count * 1.1));
    return removed;
  }

  // The link pointing at `target`, searched everywhere: only needed when the
  // hash function gave an item a different value than when it was inserted.
  __attribute__((noinline)) static Entry** linkTo(const View& v, uint32_t count, Entry* target) {
    for (uint32_t b = 0; b < v.n; ++b)
      if (v.heads[b] == target) return &v.heads[b];
    for (uint32_t i = 0; i < count; ++i)
      if (v.entries[i].next == target) return &v.entries[i].next;
    return nullptr;  // unreachable: every entry is linked once
  }

  // Moves every item, at its own position, into a new block of `buckets`
  // buckets. Walking the positions downwards and pushing at the chain heads
  // leaves every chain in position order, which is what inserting the items
  // in entry order gives.
  template <class Ops>
  static int rebuild(KELSysSimpleHashTable& t, uint32_t buckets, Ops ops) {
    Entry** heads = newBlock(buckets);
    if (heads == nullptr) return -1;
    const View old(t);
    t._storage = tagged(heads, isPointerSet(t._hash, t._equal));
    t._bucketCount = static_cast<int>(buckets);
    const View v(t);
    const uint32_t count = static_cast<uint32_t>(t._count);
    for (uint32_t i = count; i-- > 0;) {
      Entry* e = &v.entries[i];
      e->item = old.entries[i].item;
      Entry** head = &v.heads[v.bucket(ops.hash(e->item))];
      e->next = *head;
      *head = e;
    }
    freeBlock(old.heads, old.n);
    return 0;
  }
};

}  // namespace systemts::detail

using systemts::detail::SimpleHashCore;

int KELSysSimpleHashTable::UpToNiceModulo(int n) {
  for (uint32_t v = static_cast<uint32_t>(n);; ++v) {
    bool nice = true;
    for (uint32_t p : systemts::detail::kNicePrimes) {
      if (p < v && v % p == 0) {
        nice = false;
        break;
      }
    }
    if (nice) return static_cast<int>(v);
  }
}

KELSysSimpleHashTable::KELSysSimpleHashTable(int size, unsigned int (*hash)(void*), int (*equal)(void*, void*))
    : _equal(equal != nullptr ? equal : &KELSimpleHashCompare),
      _hash(hash != nullptr ? hash : &KELSimpleHashIt),
      _storage(nullptr),
      _bucketCount(0),
      _count(0) {
  int request = size;
  int m = UpToNiceModulo(request);
  for (;;) {
    const int buckets = m <= 10 ? 11 : m;
    if (Entry** block = systemts::detail::newBlock(static_cast<uint32_t>(buckets))) {
      _storage = systemts::detail::tagged(block, systemts::detail::isPointerSet(_hash, _equal));
      _bucketCount = buckets;
      return;
    }
    request /= 2;
    if (request <= 20) return;  // no storage: the table stays unusable
    m = UpToNiceModulo(request);
  }
}

KELSysSimpleHashTable::~KELSysSimpleHashTable() {
  systemts::detail::freeBlock(systemts::detail::untagged(_storage), static_cast<uint32_t>(_bucketCount));
  _storage = nullptr;
  _bucketCount = 0;
  _count = 0;
}

int KELSysSimpleHashTable::Insert(void* item) { return SimpleHashCore::insert(*this, item).status; }

void* KELSysSimpleHashTable::InsertAndReturn(void* item) { return SimpleHashCore::insert(*this, item).item; }

void* KELSysSimpleHashTable::Remove(void* item) { return SimpleHashCore::remove(*this, item); }

const KELSysSimpleHashTable::Entry* KELSysSimpleHashTable::Find(void* item) const {
  return SimpleHashCore::locateSlow(*this, item);
}

// Locate and LocateBucket are inline in the header; these references make the
// library carry (and export) a copy of each as well.
[[maybe_unused]] __attribute__((used)) static void* (KELSysSimpleHashTable::*const kLocate)(void*) const =
    &KELSysSimpleHashTable::Locate;
[[maybe_unused]] __attribute__((used)) static KELSysSimpleHashTable::Entry* (
    KELSysSimpleHashTable::*const kLocateBucket)(void*) const = &KELSysSimpleHashTable::LocateBucket;

void* KELSysSimpleHashTable::KeyLocate(unsigned int key) const {
  if (_storage == nullptr) return nullptr;
  const SimpleHashCore::View v(*this);
  for (const Entry* e = v.heads[v.bucket(key)]; e != nullptr; e = e->next)
    if (e->item != nullptr && _hash(e->item) == key) return e->item;
  return nullptr;
}

void* KELSysSimpleHashTable::Next(void* item) const {
  if (item == nullptr) return Get(0);
  const Entry* e = LocateBucket(item);
  if (e == nullptr) return nullptr;
  const SimpleHashCore::View v(*this);
  return Get(static_cast<int>(e - v.entries) + 1);
}

void* KELSysSimpleHashTable::NextWithKey(void* item) const {
  if (item == nullptr) return nullptr;
  const Entry* e = LocateBucket(item);
  if (e == nullptr) return nullptr;
  const unsigned int key = _hash(item);
  for (e = e->next; e != nullptr; e = e->next)
    if (_hash(e->item) == key) return e->item;
  return nullptr;
}

void* KELSysSimpleHashTable::Get(int i) const {
  if (i < 0 || i >= _count) return nullptr;
  return SimpleHashCore::View(*this).entries[i].item;
}

int KELSysSimpleHashTable::Size() const { return _count; }

void KELSysSimpleHashTable::RemoveAll() {
  if (_storage == nullptr) return;
  _count = 0;
  std::memset(systemts::detail::untagged(_storage), 0, static_cast<size_t>(_bucketCount) * sizeof(Entry*));
}

void KELSysSimpleHashTable::PrintStats() const {}

int KELSysSimpleHashTable::ReAllocate(int n) {
  if (_storage == nullptr) return -1;
  auto nice = [](int64_t v) -> int64_t {
    if (v > int64_t{UINT32_MAX}) return -1;
    return int64_t{static_cast<uint32_t>(UpToNiceModulo(static_cast<int>(static_cast<uint32_t>(v))))};
  };
  int64_t buckets = nice(n >= 1 ? n : 2 * int64_t{_bucketCount});
  // Fewer buckets than items: inserting the items again would grow the table
  // by doubling until they fit.
  while (buckets >= 1 && buckets <= INT_MAX && buckets < _count) buckets = nice(2 * buckets);
  if (buckets < 1 || buckets > INT_MAX) return -1;
  return SimpleHashCore::dispatch(
      *this, [&](auto ops) { return SimpleHashCore::rebuild(*this, static_cast<uint32_t>(buckets), ops); });
}

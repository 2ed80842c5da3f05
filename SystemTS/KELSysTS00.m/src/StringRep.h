// StringRep.h - the small-block pool under the string representations and the
// library's private access to a representation's header. Private to the
// library; the exported switches are in KELInterUnicodeString.h.
#ifndef SYSTEMTS_STRINGREP_H
#define SYSTEMTS_STRINGREP_H

#include <cstddef>
#include <cstdint>

#include "KELInterUnicodeString.h"

namespace systemts::detail {

// The most units (bytes or UTF-16 units) one representation holds: 2^30, so
// that every size computed from it fits an int and a 31-bit capacity.
constexpr long kMaxUnits = 1L << 30;

// Rounds `size` up to a multiple of 8 and writes the rounded size back; the
// block comes from the pool when the calling thread's pool flag is on and
// its class holds one, else from malloc (null when that fails).
void* poolAllocate(size_t& size) noexcept;
// Gives a block back with a stated size at most its real size: to the pool
// when the calling thread's flag is on, the stated size is at most 96 bytes
// and its class is below its limit, else to free. Null is ignored.
void poolRelease(void* block, size_t statedSize) noexcept;

struct RepAccess {
  using Rep = KELInterUnicodeString;

  // The shared empty string: header and a zero terminator wide enough for
  // either form, constant-initialised so that it exists before any
  // constructor of any library runs.
  struct EmptyBlock {
    constexpr EmptyBlock() : head(0, 0, 1), text{} {}
    Rep head;
    uint16_t text[4];
  };

  static void checkLayout() {
    static_assert(sizeof(Rep) == 32, "the text starts 32 bytes after the header");
    static_assert(offsetof(Rep, _secondView) == 0 && offsetof(Rep, _lengthInChar) == 8 &&
                      offsetof(Rep, _lengthInByte) == 12 && offsetof(Rep, _capacity) == 16 &&
                      offsetof(Rep, _hashKey) == 20 && offsetof(Rep, _refCount) == 24 &&
                      offsetof(Rep, _flags) == 28,
                  "header fields in their order and widths");
    static_assert(offsetof(EmptyBlock, text) == sizeof(Rep), "the empty text follows its header");
  }

  // A fresh block of the given form with room for n units and the
  // terminator, length n, count 1, hash stale; the empty string when n is out
  // of [1, kMaxUnits] or memory runs out.
  static Rep* make(bool ucs, long n) noexcept;

  static uint16_t* units(Rep* r) { return static_cast<uint16_t*>(r->GetText()); }
  static char* bytes(Rep* r) { return static_cast<char*>(r->GetText()); }

  // Appends one unit to a UCS block the caller owns alone when it has room;
  // false (nothing done) otherwise. The fast path of appending a character:
  // with the count at 1 (read with acquire, pairing with the release of the
  // last other handle) no other thread can read the block, so plain loads and
  // stores suffice.
  static bool appendUnitInPlace(Rep* r, uint16_t unit) noexcept {
    if ((r->_flags & Rep::kUCS) == 0 || r->_refCount.load(std::memory_order_acquire) != 1) return false;
    const uint32_t word = r->_capacity.load(std::memory_order_relaxed);
    const int len = r->_lengthInChar.load(std::memory_order_relaxed);
    if (static_cast<int>(word & Rep::kCapacityMask) <= len + 1) return false;
    uint16_t* t = units(r);
    t[len] = unit;
    t[len + 1] = 0;
    r->_lengthInChar.store(len + 1, std::memory_order_relaxed);
    if (r->_secondView.load(std::memory_order_relaxed) != nullptr) r->_DeleteSecondView();
    r->_capacity.store(word | Rep::kHashDirty, std::memory_order_relaxed);
    return true;
  }
};

}  // namespace systemts::detail

#endif  // SYSTEMTS_STRINGREP_H

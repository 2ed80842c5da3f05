// KELInterUnicodeString.h - the shared, reference-counted representation behind
// the string value types (KELUnicodeString, KELString), the small-block pool
// it is allocated from, and the process switches of the text subsystem.
//
// A representation is one heap block: the header below, then the text. The
// text is in one of two primary forms, chosen when the block is made:
//   KELInterStringMBCS  bytes in the process code page (the code page of
//                       NUVSysCodePage::GetEnvConverter());
//   KELInterStringUCS   UTF-16 code units.
// The primary form is authoritative. The other form (the "second view") is
// converted from it on first request, cached beside it, and dropped whenever
// the text changes. Both are always followed by one terminating 0 unit.
//
// Handles hold the address of the text, not of the header; the header sits
// immediately before the text (FromText / GetText).
//
// Ownership: a handle owns one reference. Every mutating operation below takes
// the representation it is called on (consuming the caller's reference) and
// returns the one that now holds the result (carrying that reference): the
// same block, a fresh one, or the shared empty string. Callers store the
// returned pointer; they never free a block themselves.
//
// The shared empty string (_KELSysEmptyStringPtr): one MBCS block of length
// 0, capacity 0, reference count 1, in static storage. It is never freed,
// its count never moves (AddRef and Release leave it alone, Release returns
// -1), and every empty result or failed allocation is this block.
//
// Threads:
// - Reference counts change only by atomic read-modify-write, so handles onto
//   one block may be copied and destroyed on several threads at once.
// - Readers of one shared block (lengths, both views, hash key) may run on
//   several threads at once: the second view is installed by compare-and-swap
//   (the loser frees its own copy and uses the winner's), and its cached
//   length is stored before the swap, so a thread that sees the view also
//   sees its length.
// - A shared block is never changed in place: the copy-on-write step gives the
//   writer a private block. Changing a block while another thread uses the
//   same handle is the caller's race, as with any value type.
// - The pool tables are global and unlocked. Only threads whose pool flag is
//   on use them, and the flag must be on in at most one thread at a time
//   (normally the host's main thread, through NUVStringInit).
//
// Failures: allocation failures give the shared empty string and report
// nothing, except while building a second view, which calls NUVDebugBreak(1)
// and leaves the view absent. Nothing here throws.
#ifndef KELINTERUNICODESTRING_H
#define KELINTERUNICODESTRING_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "SystemTSCommon.h"

namespace systemts::detail {
struct RepAccess;
}

class SYSTEMTS_API KELInterUnicodeString {
 public:
  KELInterUnicodeString(const KELInterUnicodeString&) = delete;
  KELInterUnicodeString& operator=(const KELInterUnicodeString&) = delete;

  // ---- the shared empty string and the process switches ----

  // Always the address of the static empty block.
  static KELInterUnicodeString* _KELSysEmptyStringPtr;
  static KELInterUnicodeString* _GetEmptyString() { return _KELSysEmptyStringPtr; }
  bool IsEmptyString() const { return this == _KELSysEmptyStringPtr; }

  // Development stage: 1 unless the environment variable
  // "KELDevelopmentStage" holds "FALSE" when the library loads; overwritten
  // by NUVStringInit.
  static int S_devStage;

  // ---- construction from text ----

  // A new representation (count 1) in this block's form holding its text `n`
  // times in a row. An empty text, n = 0 or a failed allocation (including a
  // result above 2^30 units) gives the empty string.
  KELInterUnicodeString* DuplicateString(unsigned long n);
  // Null `src` or n = 0 gives the empty string; otherwise
  // src->DuplicateString(n).
  static KELInterUnicodeString* CreateString(KELInterUnicodeString* src, unsigned long n);

  // ---- reference counting ----

  // One more handle shares this block (no effect on the empty string).
  void AddRef() {
    if (!IsEmptyString()) _refCount.fetch_add(1, std::memory_order_relaxed);
  }
  // One handle less: at zero the second view and the block are freed.
  // Returns the new count; -1 for the empty string.
  int Release();
  int GetRefCount() const { return _refCount.load(std::memory_order_acquire); }

  // ---- reading ----

  bool IsUCS() const { return (_flags & kUCS) != 0; }
  // Length in UTF-16 code units. For MBCS text of non-zero byte length the
  // UTF-16 view is built first (once).
  int GetLengthInChar();
  // Length in bytes in the process code page. For UCS text the multi-byte
  // view is built first (once).
  int GetLengthInByte();
  // The UTF-16 text: the primary text of a UCS block, else the second view
  // (built on demand; a static empty text if it cannot be built).
  const unsigned short* ConvertToUCChar();
  // The multi-byte text: the primary text of an MBCS block, else the second
  // view (built on demand; "" if it cannot be built).
  const char* ConvertToChar();
  // The cached V3 hash key (low 31 bits, seed 0) of the text, computed first
  // when stale. Equal texts hash alike in either form.
  unsigned int ComputeHashKey();

  // The primary text and its length in primary units; capacity in primary
  // units, terminator slot included.
  void* GetText() { return this + 1; }
  const void* GetText() const { return this + 1; }
  static KELInterUnicodeString* FromText(const void* text) {
    return const_cast<KELInterUnicodeString*>(static_cast<const KELInterUnicodeString*>(text) - 1);
  }
  int GetPrimaryLength() const {
    return (IsUCS() ? _lengthInChar : _lengthInByte).load(std::memory_order_relaxed);
  }
  int GetCapacity() const { return static_cast<int>(_capacity.load(std::memory_order_relaxed) & kCapacityMask); }
  bool HasSecondView() const { return _secondView.load(std::memory_order_acquire) != nullptr; }
  bool IsHashDirty() const { return (_capacity.load(std::memory_order_acquire) & kHashDirty) != 0; }

  // ---- second view ----

  // Build the second view if it is missing (no effect on a block of the other
  // form, on an existing view, or on the empty string).
  void _UpdateUnicodeView();
  void _UpdateCharView();
  // Frees the second view (owner only).
  void _DeleteSecondView();

  // ---- changing (each returns the block that now holds the result) ----

  // The copy-on-write step: a block of the named form with room for n units
  // and its terminator, private to the caller. An unshared block that is big
  // enough comes back as it is (with keep clear, its view dropped and its hash
  // marked stale). Otherwise a fresh block of capacity n is made, or, with
  // grow set and the old capacity too small, max(n, 1.5 x old capacity); with
  // keep set, min(old length, n) units of the text are copied over (through
  // the other form's view when the form changes). The old block loses one
  // reference.
  KELInterUnicodeString* _AllocNewStringMBCS(int n, bool keep, bool grow);
  KELInterUnicodeString* _AllocNewStringUCS(int n, bool keep, bool grow);
  // The same text in a block no other handle holds.
  KELInterUnicodeString* Isolate();
  // A UCS block whose units are all at most 127 (or which is empty) becomes
  // MBCS; anything else comes back as it is.
  KELInterUnicodeString* Pack();
  // This text followed by `other`'s. UCS + any stays UCS; MBCS + UCS becomes
  // UCS; MBCS + MBCS stays MBCS. An empty `other` changes nothing. Appending
  // a block to itself is safe (it doubles the text).
  KELInterUnicodeString* Append(KELInterUnicodeString* other);

  // Sets the primary length of a private block to n (< capacity), writes the
  // terminator, drops the second view and marks the hash stale. n = 0 releases
  // the block and gives the empty string. Returns the block to keep.
  KELInterUnicodeString* _SetLength(int n);

 protected:
  static constexpr uint16_t kUCS = 1;
  static constexpr uint32_t kHashDirty = 0x80000000u;
  static constexpr uint32_t kCapacityMask = 0x7FFFFFFFu;

  constexpr KELInterUnicodeString(uint16_t flags, uint32_t capacity, int refCount) noexcept
      : _secondView(nullptr), _lengthInChar(0), _lengthInByte(0), _capacity(capacity), _hashKey(0),
        _refCount(refCount), _flags(flags) {}
  ~KELInterUnicodeString() = default;

 private:
  friend struct systemts::detail::RepAccess;

  SYSTEMTS_HIDDEN KELInterUnicodeString* changeForm(int n, bool keep, bool toUCS);
  SYSTEMTS_HIDDEN KELInterUnicodeString* cow(int n, bool keep, bool grow);
  SYSTEMTS_HIDDEN void markChanged();

  // Header, in this order and these widths (the text follows at offset 32).
  std::atomic<void*> _secondView;     // the other form, terminated, or null; owned
  std::atomic<int32_t> _lengthInChar;  // UTF-16 units: authoritative for UCS, cached for MBCS
  std::atomic<int32_t> _lengthInByte;  // bytes: authoritative for MBCS, cached for UCS
  std::atomic<uint32_t> _capacity;     // low 31 bits capacity (primary units), top bit hash stale
  std::atomic<uint32_t> _hashKey;      // last computed key, 31 bits
  std::atomic<int32_t> _refCount;      // handles sharing the block
  uint16_t _flags;                     // bit 0: UCS
};

// Multi-byte (process code page) representations.
class SYSTEMTS_API KELInterStringMBCS : public KELInterUnicodeString {
 public:
  // A fresh block (count 1, hash stale) with room for n bytes and the
  // terminator, its byte length already n and its text and text[n] zeroed at
  // the ends; the caller writes the n bytes. n < 1, n above 2^30, or a failed
  // allocation gives the empty string (detect it by a length other than n).
  static KELInterUnicodeString* Allocate(int n);
};

// UTF-16 representations.
class SYSTEMTS_API KELInterStringUCS : public KELInterUnicodeString {
 public:
  // As KELInterStringMBCS::Allocate, in UTF-16 code units.
  static KELInterUnicodeString* Allocate(int n);
  // `codePoint` `count` times; above 0xFFFF each is the surrogate pair
  // 0xD7C0 + (cp >> 10), 0xDC00 + (cp & 0x3FF). count 0 gives the empty
  // string.
  static KELInterUnicodeString* CreateString(unsigned codePoint, unsigned long count);
};

// ---- the pool and the life cycle of the text subsystem ----
//
// The pool keeps freed blocks of up to 96 bytes in 12 classes of 8 bytes
// (class k: 8k + 1 to 8k + 8 bytes), up to a limit of 256 blocks each, and
// serves allocations of the calling thread from them while that thread's
// pool flag is on. Blocks are released with a stated size that may be below
// their real size (a UCS block states its capacity in units, a view the
// length of its text), so a block only ever lands in a class no larger than
// its own.

// For the host's start-up code: stores devStage in S_devStage and, unless the
// environment variable "ReplayPurify" is set, turns the pool on for the
// calling thread. Returns 0.
SYSTEMTS_API int NUVStringInit(int devStage);
// For shut-down: NUVStringPoolFlush, NUVStringPoolDisable, then closes the
// code-page converter's per-thread iconv descriptors
// (NUVSysIConvTSWrap::sDeinitIConvTS); conversions through iconv fall back to
// the identity method afterwards. Returns 0.
SYSTEMTS_API int NUVStringDeInit();
// Sets the calling thread's pool flag.
SYSTEMTS_API void NUVStringPoolSetForCurrentThrd(bool on);
// Frees every block the pool holds; true when at least one class held one.
SYSTEMTS_API bool NUVStringPoolFlush();
// Sets every class limit to 0: later releases go to the system allocator.
SYSTEMTS_API void NUVStringPoolDisable();

// Called on conditions a developer should look at (such as a second view that
// could not be allocated): writes one line, "NUVDebugBreak(<code>)", on
// standard error and returns.
SYSTEMTS_API void NUVDebugBreak(int code);

#endif  // KELINTERUNICODESTRING_H

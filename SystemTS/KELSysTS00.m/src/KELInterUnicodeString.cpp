// KELInterUnicodeString: the string representation, its small-block pool, the
// shared empty string and the life cycle of the text subsystem.
#include "KELInterUnicodeString.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Diagnostics.h"
#include "NUVSysCodePage.h"
#include "NUVSysIConvTSWrap.h"
#include "NUVSysNLSEnv.h"
#include "NUVSysUCAlgorithm.h"
#include "StringRep.h"
#include "Settings.h"
#include "SysCalls.h"

using Rep = KELInterUnicodeString;

namespace systemts::detail {

// ---------------------------------------------------------------- pool --

namespace {

struct PoolClass {
  void* head;      // free blocks, linked through their first 8 bytes
  uint32_t count;  // blocks in the list
  uint32_t limit;  // most blocks the list keeps
};

constexpr size_t kPoolClasses = 12;
PoolClass g_pool[kPoolClasses] = {
    {nullptr, 0, 256}, {nullptr, 0, 256}, {nullptr, 0, 256}, {nullptr, 0, 256},
    {nullptr, 0, 256}, {nullptr, 0, 256}, {nullptr, 0, 256}, {nullptr, 0, 256},
    {nullptr, 0, 256}, {nullptr, 0, 256}, {nullptr, 0, 256}, {nullptr, 0, 256}};

// Initial-exec: the flag is read on every allocation, and a general-dynamic
// access would cost a call into the dynamic linker each time.
__attribute__((tls_model("initial-exec"))) thread_local bool t_poolOn = false;

// Class of a request or stated size s: (s - 1) / 8; 0 wraps to a huge class,
// so it is never pooled.
size_t poolClass(size_t s) { return (s - 1) / 8; }

}  // namespace

void* poolAllocate(size_t& size) noexcept {
  size = (size + 7) & ~size_t{7};
  const size_t k = poolClass(size);
  if (t_poolOn && k < kPoolClasses && g_pool[k].head != nullptr) {
    PoolClass& c = g_pool[k];
    void* block = c.head;
    c.head = *static_cast<void**>(block);
    --c.count;
    return block;
  }
  return g_sys.malloc(size);
}

void poolRelease(void* block, size_t statedSize) noexcept {
  if (block == nullptr) return;
  const size_t k = poolClass(statedSize);
  if (t_poolOn && k < kPoolClasses && g_pool[k].count < g_pool[k].limit) {
    PoolClass& c = g_pool[k];
    *static_cast<void**>(block) = c.head;
    c.head = block;
    ++c.count;
    return;
  }
  std::free(block);
}

Rep* RepAccess::make(bool ucs, long n) noexcept {
  if (n < 1 || n > kMaxUnits) return Rep::_KELSysEmptyStringPtr;
  const size_t unit = ucs ? 2 : 1;
  size_t size = sizeof(Rep) + unit * (static_cast<size_t>(n) + 1);
  void* mem = poolAllocate(size);
  if (mem == nullptr) return Rep::_KELSysEmptyStringPtr;
  const uint32_t capacity = static_cast<uint32_t>((size - sizeof(Rep)) / unit);
  Rep* r = new (mem) Rep(ucs ? Rep::kUCS : 0, capacity | Rep::kHashDirty, 1);
  const int len = static_cast<int>(n);
  if (ucs) {
    r->_lengthInChar.store(len, std::memory_order_relaxed);
    units(r)[0] = 0;
    units(r)[len] = 0;
  } else {
    r->_lengthInByte.store(len, std::memory_order_relaxed);
    bytes(r)[0] = 0;
    bytes(r)[len] = 0;
  }
  return r;
}

namespace {
RepAccess::EmptyBlock g_emptyBlock;
const uint16_t kEmptyUnits[1] = {0};
}  // namespace

}  // namespace systemts::detail

using namespace systemts::detail;

Rep* Rep::_KELSysEmptyStringPtr = &g_emptyBlock.head;

int Rep::S_devStage = DevelopmentStageSetting();

// ------------------------------------------------------------- creation --

Rep* KELInterStringMBCS::Allocate(int n) { return RepAccess::make(false, n); }

Rep* KELInterStringUCS::Allocate(int n) { return RepAccess::make(true, n); }

Rep* KELInterStringUCS::CreateString(unsigned codePoint, unsigned long count) {
  const unsigned long per = codePoint > 0xFFFFu ? 2 : 1;
  if (count == 0 || count > static_cast<unsigned long>(kMaxUnits) / per) return _KELSysEmptyStringPtr;
  Rep* r = RepAccess::make(true, static_cast<long>(count * per));
  if (r->IsEmptyString()) return r;
  uint16_t* t = RepAccess::units(r);
  if (per == 2) {
    const uint16_t hi = static_cast<uint16_t>(0xD7C0u + (codePoint >> 10));
    const uint16_t lo = static_cast<uint16_t>(0xDC00u + (codePoint & 0x3FFu));
    for (unsigned long i = 0; i < count; ++i) {
      t[2 * i] = hi;
      t[2 * i + 1] = lo;
    }
  } else {
    std::fill(t, t + count, static_cast<uint16_t>(codePoint));
  }
  return r;
}

Rep* Rep::DuplicateString(unsigned long n) {
  const unsigned long len = static_cast<unsigned long>(GetPrimaryLength());
  if (len == 0 || n == 0 || n > static_cast<unsigned long>(kMaxUnits) / len) return _KELSysEmptyStringPtr;
  Rep* r = RepAccess::make(IsUCS(), static_cast<long>(len * n));
  if (r->IsEmptyString()) return r;
  const size_t chunk = len * (IsUCS() ? 2 : 1);
  char* out = static_cast<char*>(r->GetText());
  for (unsigned long i = 0; i < n; ++i) std::memcpy(out + i * chunk, GetText(), chunk);
  return r;
}

Rep* Rep::CreateString(Rep* src, unsigned long n) {
  if (src == nullptr || n == 0) return _KELSysEmptyStringPtr;
  return src->DuplicateString(n);
}

// ------------------------------------------------------------ counting --

int Rep::Release() {
  if (IsEmptyString()) return -1;
  const int left = _refCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) {
    _DeleteSecondView();
    poolRelease(this, sizeof(Rep) + static_cast<size_t>(GetCapacity()));
  }
  return left;
}

// --------------------------------------------------------- second view --

namespace {

// The publish step of both second-view builders. The view's length (in its
// own units) goes in before the view: a reader that sees the view sees its
// length, and a losing builder stores the same value. A builder that lost the
// race frees its copy.
void publishView(std::atomic<void*>& view, std::atomic<int32_t>& length, void* built, int n) {
  length.store(n, std::memory_order_relaxed);
  void* expected = nullptr;
  if (!view.compare_exchange_strong(expected, built, std::memory_order_acq_rel, std::memory_order_acquire))
    poolRelease(built, static_cast<size_t>(n));
}

}  // namespace

void Rep::_UpdateUnicodeView() {
  if (IsUCS() || IsEmptyString() || _secondView.load(std::memory_order_acquire) != nullptr) return;
  const int nb = _lengthInByte.load(std::memory_order_relaxed);
  // One unit per byte, plus the pair a cut four-byte lead at the end decodes
  // to on a UTF-8 converter, plus the terminator.
  size_t size = (static_cast<size_t>(nb) + 2) * 2;
  auto* buf = static_cast<unsigned short*>(poolAllocate(size));
  if (buf == nullptr) {
    NUVDebugBreak(1);
    return;
  }
  int n = 0;
  NUVSysCodePage::GetEnvConverter().ConvertMBCSToUTF16(static_cast<const char*>(GetText()), nb, buf, &n);
  n = std::clamp(n, 0, nb + 1);
  buf[n] = 0;
  publishView(_secondView, _lengthInChar, buf, n);
}

void Rep::_UpdateCharView() {
  if (!IsUCS() || IsEmptyString() || _secondView.load(std::memory_order_acquire) != nullptr) return;
  const int n16 = _lengthInChar.load(std::memory_order_relaxed);
  const size_t maxSize = static_cast<size_t>(std::max(NUVGetMultiByteCharMaxSize(), 1));
  size_t size = maxSize * static_cast<size_t>(n16) + 1;
  char* buf = static_cast<char*>(poolAllocate(size));
  if (buf == nullptr) {
    NUVDebugBreak(1);
    return;
  }
  int n = 0;
  NUVSysCodePage::GetEnvConverter().ConvertUTF16ToMBCS(static_cast<const unsigned short*>(GetText()), n16,
                                                        buf, &n);
  n = std::clamp(n, 0, static_cast<int>(size - 1));
  buf[n] = 0;
  publishView(_secondView, _lengthInByte, buf, n);
}

void Rep::_DeleteSecondView() {
  void* view = _secondView.exchange(nullptr, std::memory_order_acquire);
  if (view == nullptr) return;
  // Stated as the length of the view's text, in its own units.
  const int len = (IsUCS() ? _lengthInByte : _lengthInChar).load(std::memory_order_relaxed);
  poolRelease(view, static_cast<size_t>(len));
}

// ------------------------------------------------------------- reading --

int Rep::GetLengthInChar() {
  if (IsUCS()) return _lengthInChar.load(std::memory_order_relaxed);
  if (_lengthInByte.load(std::memory_order_relaxed) == 0) return 0;
  _UpdateUnicodeView();
  return HasSecondView() ? _lengthInChar.load(std::memory_order_relaxed) : 0;
}

int Rep::GetLengthInByte() {
  if (!IsUCS()) return _lengthInByte.load(std::memory_order_relaxed);
  _UpdateCharView();
  return HasSecondView() ? _lengthInByte.load(std::memory_order_relaxed) : 0;
}

const unsigned short* Rep::ConvertToUCChar() {
  if (IsUCS()) return static_cast<const unsigned short*>(GetText());
  if (IsEmptyString()) return kEmptyUnits;
  _UpdateUnicodeView();
  const void* view = _secondView.load(std::memory_order_acquire);
  return view != nullptr ? static_cast<const unsigned short*>(view) : kEmptyUnits;
}

const char* Rep::ConvertToChar() {
  if (!IsUCS()) return static_cast<const char*>(GetText());
  _UpdateCharView();
  const void* view = _secondView.load(std::memory_order_acquire);
  return view != nullptr ? static_cast<const char*>(view) : "";
}

unsigned int Rep::ComputeHashKey() {
  if ((_capacity.load(std::memory_order_acquire) & kHashDirty) == 0)
    return _hashKey.load(std::memory_order_relaxed);
  unsigned h = IsUCS() ? NUVSysUCAlgorithm::HashV3FromUCS2(static_cast<const unsigned short*>(GetText()),
                                                           static_cast<unsigned long>(GetPrimaryLength()), 0)
                       : NUVSysUCAlgorithm::HashV3FromMBCSOptimistic(
                             static_cast<const char*>(GetText()),
                             static_cast<unsigned long>(GetPrimaryLength()), 0, nullptr);
  h &= 0x7FFFFFFFu;
  // Several readers may compute at once; they store the same key.
  _hashKey.store(h, std::memory_order_relaxed);
  _capacity.fetch_and(~kHashDirty, std::memory_order_release);
  return h;
}

// ------------------------------------------------------------ changing --

// Owner only (count 1, synchronised by the acquire load of the count), so
// plain loads and stores are enough here: no other thread reads the block.
void Rep::markChanged() {
  if (_secondView.load(std::memory_order_relaxed) != nullptr) _DeleteSecondView();
  _capacity.store(_capacity.load(std::memory_order_relaxed) | kHashDirty, std::memory_order_relaxed);
}

Rep* Rep::_SetLength(int n) {
  if (IsEmptyString()) return this;
  if (n <= 0) {
    Release();
    return _KELSysEmptyStringPtr;
  }
  if (IsUCS()) {
    RepAccess::units(this)[n] = 0;
    _lengthInChar.store(n, std::memory_order_relaxed);
  } else {
    RepAccess::bytes(this)[n] = 0;
    _lengthInByte.store(n, std::memory_order_relaxed);
  }
  markChanged();
  return this;
}

Rep* Rep::cow(int n, bool keep, bool grow) {
  n = std::max(n, 0);
  const int capacity = GetCapacity();
  const int count = _refCount.load(std::memory_order_acquire);
  if (count < 2 && capacity > n) {
    if (count != 1 || keep) return this;
    markChanged();
    return this;
  }
  long newCapacity = n;
  if (grow && capacity <= n) {
    const long grown = static_cast<long>(static_cast<double>(capacity) * 1.5);
    newCapacity = std::max<long>(n, std::min<long>(grown, kMaxUnits));
  }
  Rep* fresh = RepAccess::make(IsUCS(), newCapacity);
  if (keep && !fresh->IsEmptyString()) {
    const int m = std::min(GetPrimaryLength(), n);
    const size_t unit = IsUCS() ? 2 : 1;
    std::memcpy(fresh->GetText(), GetText(), static_cast<size_t>(m) * unit);
    if (IsUCS()) {
      RepAccess::units(fresh)[m] = 0;
      fresh->_lengthInChar.store(m, std::memory_order_relaxed);
    } else {
      RepAccess::bytes(fresh)[m] = 0;
      fresh->_lengthInByte.store(m, std::memory_order_relaxed);
    }
  }
  Release();
  return fresh;
}

Rep* Rep::changeForm(int n, bool keep, bool toUCS) {
  Rep* fresh = RepAccess::make(toUCS, std::max(n, 0));
  if (keep && !fresh->IsEmptyString()) {
    if (toUCS) {
      const int m = std::min(GetLengthInChar(), n);
      std::memcpy(fresh->GetText(), ConvertToUCChar(), static_cast<size_t>(m) * 2);
      RepAccess::units(fresh)[m] = 0;
      fresh->_lengthInChar.store(m, std::memory_order_relaxed);
    } else {
      const int m = std::min(GetLengthInByte(), n);
      std::memcpy(fresh->GetText(), ConvertToChar(), static_cast<size_t>(m));
      RepAccess::bytes(fresh)[m] = 0;
      fresh->_lengthInByte.store(m, std::memory_order_relaxed);
    }
  }
  Release();
  return fresh;
}

Rep* Rep::_AllocNewStringMBCS(int n, bool keep, bool grow) {
  return IsUCS() ? changeForm(n, keep, false) : cow(n, keep, grow);
}

Rep* Rep::_AllocNewStringUCS(int n, bool keep, bool grow) {
  return IsUCS() ? cow(n, keep, grow) : changeForm(n, keep, true);
}

Rep* Rep::Isolate() { return cow(GetPrimaryLength(), true, false); }

Rep* Rep::Pack() {
  if (!IsUCS()) return this;
  const int n = GetPrimaryLength();
  const uint16_t* t = RepAccess::units(this);
  for (int i = 0; i < n; ++i)
    if (t[i] > 127) return this;
  Rep* r = changeForm(n, true, false);
  return r->GetPrimaryLength() == 0 ? r->_SetLength(0) : r;
}

Rep* Rep::Append(Rep* other) {
  if (other == nullptr) return this;
  const bool ucs = IsUCS() || other->IsUCS();
  const long len = ucs ? GetLengthInChar() : GetPrimaryLength();
  const long add = ucs ? other->GetLengthInChar() : other->GetPrimaryLength();
  if (add == 0) return this;
  if (len + add > kMaxUnits) {  // cannot be allocated: the empty string, as any failure
    Release();
    return _KELSysEmptyStringPtr;
  }
  const int total = static_cast<int>(len + add);
  // The extra reference keeps `other`'s text alive when it is this block.
  other->AddRef();
  Rep* r = ucs ? _AllocNewStringUCS(total, true, true) : _AllocNewStringMBCS(total, true, true);
  if (!r->IsEmptyString()) {
    if (ucs)
      std::memcpy(RepAccess::units(r) + len, other->ConvertToUCChar(), static_cast<size_t>(add) * 2);
    else
      std::memcpy(RepAccess::bytes(r) + len, other->GetText(), static_cast<size_t>(add));
    r = r->_SetLength(total);
  }
  other->Release();
  return r;
}

// ----------------------------------------------------------- life cycle --

int NUVStringInit(int devStage) {
  Rep::S_devStage = devStage;
  if (!ReplayPurifySetting()) t_poolOn = true;
  return 0;
}

int NUVStringDeInit() {
  NUVStringPoolFlush();
  NUVStringPoolDisable();
  NUVSysIConvTSWrap::sDeinitIConvTS(0);
  return 0;
}

void NUVStringPoolSetForCurrentThrd(bool on) { t_poolOn = on; }

bool NUVStringPoolFlush() {
  bool held = false;
  for (PoolClass& c : g_pool) {
    held = held || c.count != 0;
    while (c.head != nullptr) {
      void* block = c.head;
      c.head = *static_cast<void**>(block);
      std::free(block);
    }
    c.count = 0;
  }
  return held;
}

void NUVStringPoolDisable() {
  for (PoolClass& c : g_pool) c.limit = 0;
}

void NUVDebugBreak(int code) {
  Diagnose(stderr, kDiagnoseFlush, "NUVDebugBreak(%d)\n", code);
}

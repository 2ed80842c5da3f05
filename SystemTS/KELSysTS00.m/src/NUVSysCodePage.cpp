// NUVSysCodePage: the MBCS <-> UTF-16 converter with its three method pairs,
// and the environment converter.
#include "NUVSysCodePage.h"

#include <cassert>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "CodePageCore.h"
#include "Diagnostics.h"
#include "KELMutex.h"
#include "LocaleDatabase.h"
#include "LockInternal.h"
#include "NUVSysCLocale.h"
#include "NUVSysUCAlgorithm.h"
#include "SingleByteTables.h"
#include "SysCalls.h"
#include "UTFCore.h"

using namespace systemts::detail;

namespace {

// Bytes of the NUL-terminated text at p that a one-character decode may read:
// at most `max`, and never past the terminating NUL (which is included).
size_t readable(const char* p, size_t max) {
  const size_t n = strnlen(p, max);
  return n < max ? n + 1 : max;
}

}  // namespace

std::atomic<NUVSysCodePage*> NUVSysCodePage::_sCPConverter{nullptr};

// Callers compiled against the class rely on its size and on where the name
// sits (GetCodePageName is inline).
static_assert(sizeof(NUVSysCodePage) == 72, "NUVSysCodePage changed size");
static_assert(std::atomic<const char*>::is_always_lock_free, "the name must read as a plain pointer");
static_assert(sizeof(std::atomic<const char*>) == sizeof(char*), "the name must sit where it always has");

namespace {

// Serialises changes of setup (and the list of kept setups) across all
// converters; conversions never take it.
std::mutex g_setupMutex;

bool sameSetup(const CodePageState& a, const CodePageState& b) {
  return a.kind == b.kind && a.toUcs == b.toUcs && a.fromUcs == b.fromUcs && a.name != nullptr &&
         b.name != nullptr && std::strcmp(a.name, b.name) == 0 && std::strcmp(a.cLocale, b.cLocale) == 0;
}

// Registers both directions of `codePage` and checks iconv can open them.
int initConvDesc(const char* codePage, IConvDesc_t& toUcs, IConvDesc_t& fromUcs) {
  if (codePage == nullptr || std::strcmp(codePage, "N/A") == 0) return E_FAIL;
  int rc = NUVSysIConvTSWrap::Open("UTF-16LE", codePage, toUcs);
  if (rc == S_OK) rc = NUVSysIConvTSWrap::Open(codePage, "UTF-16LE", fromUcs);
  // Registering opens nothing: make sure iconv really knows the code page,
  // so that an unknown one becomes an identity converter as promised.
  if (rc == S_OK && (NUVSysIConvTSWrap::GetIConvDesc(toUcs) == kNoDescriptor ||
                     NUVSysIConvTSWrap::GetIConvDesc(fromUcs) == kNoDescriptor)) {
    rc = E_FAIL;
  }
  if (rc != S_OK) {
    Diagnose(stderr, kDiagnoseFlush,
             "ERROR: SUPPLANG_K2 does not contain a valid code set for code page: %s.\n", codePage);
  }
  return rc;
}

}  // namespace

// ---- construction ----

NUVSysCodePage::NUVSysCodePage() : _codePage(nullptr), _setup(nullptr), _setups(nullptr), _reserved{} {}

NUVSysCodePage::NUVSysCodePage(const char* codePage) : NUVSysCodePage() { _Reinitialize(codePage, nullptr); }

NUVSysCodePage::~NUVSysCodePage() {
  for (CodePageState* s = _setups; s != nullptr;) {
    CodePageState* older = s->older;
    std::free(s->name);
    delete s;
    s = older;
  }
}

void NUVSysCodePage::_Reinitialize(const char* codePage, const char* localeEntry) {
  const CodePageState* current = _setup.load(std::memory_order_acquire);
  if (codePage != nullptr && current != nullptr && current->name != nullptr &&
      std::strcmp(current->name, codePage) == 0) {
    return;
  }
  // Work out the new setup completely before anything is published.
  CodePageState next;
  const char* name = "Identity";
  if (codePage != nullptr) {
    if (std::strcmp(codePage, "UTF-8") == 0) {
      next.kind = CodePageKind::Utf8;
      name = codePage;
    } else if (initConvDesc(codePage, next.toUcs, next.fromUcs) == S_OK) {
      next.kind = CodePageKind::Iconv;
      name = codePage;
    }
    if (next.kind != CodePageKind::Identity && localeEntry != nullptr &&
        NUVSysCLocale::GetLocaleStringFromLangString(localeEntry, next.cLocale, kCLocaleSize) != 0) {
      std::strcpy(next.cLocale, "C");
    }
  }
  std::lock_guard<std::mutex> lock(g_setupMutex);
  CodePageState* chosen = nullptr;
  // A name that cannot be copied leaves none rather than the previous one,
  // which would no longer say what the converter does.
  next.name = CopyName(name);
  for (CodePageState* s = _setups; s != nullptr; s = s->older) {
    if (sameSetup(*s, next)) {
      chosen = s;
      break;
    }
  }
  if (chosen != nullptr) {
    std::free(next.name);
  } else {
    chosen = new (std::nothrow) CodePageState(next);
    if (chosen == nullptr) {
      // Out of memory: the converter stays as it was.
      std::free(next.name);
      return;
    }
    chosen->older = _setups;
    _setups = chosen;
  }
  _codePage.store(chosen->name, std::memory_order_release);
  _setup.store(chosen, std::memory_order_release);
}

int NUVSysCodePage::_InitConvDesc(const char* codePage) {
  const CodePageState* s = _setup.load(std::memory_order_acquire);
  if (s != nullptr && s->kind == CodePageKind::Utf8) return 1;
  IConvDesc_t toUcs = 0, fromUcs = 0;
  return initConvDesc(codePage, toUcs, fromUcs);
}

const char* NUVSysCodePage::_GetAssociatedCLocale() const {
  const CodePageState* s = _setup.load(std::memory_order_acquire);
  return s != nullptr ? s->cLocale : "C";
}

bool NUVSysCodePage::IsValid() const {
  const CodePageState* s = _setup.load(std::memory_order_acquire);
  return s != nullptr && s->kind != CodePageKind::Identity;
}

// ---- the environment converter ----

const NUVSysCodePage& NUVSysCodePage::GetEnvConverter() {
  if (NUVSysCodePage* c = _sCPConverter.load(std::memory_order_acquire)) return *c;
  systemts::detail::GlobalMutexLock global;
  NUVSysNLSEnv env;
  GetEnvNLSData(env);
  if (_sCPConverter.load(std::memory_order_relaxed) == nullptr) {
    assert(env.codePage[0] != '\0' && "l_NLSEntry.codePage && strcmp(l_NLSEntry.codePage, \"\")");
    // Never destroyed: code that runs during exit may still convert.
    alignas(NUVSysCodePage) static unsigned char storage[sizeof(NUVSysCodePage)];
    auto* c = new (storage) NUVSysCodePage();
    NLSCoreRegisterCBOnChange(&NUVSysCodePage::OnChangeNLSCore);
    c->_Reinitialize(env.codePage, env.localeEntry);
    _sCPConverter.store(c, std::memory_order_release);
  }
  return *_sCPConverter.load(std::memory_order_acquire);
}

void NUVSysCodePage::OnChangeNLSCore(const NUVSysNLSEnv& env) {
  // Publishes a new setup; conversions running meanwhile keep the old one,
  // which the converter keeps (see CodePageCore.h).
  auto& c = const_cast<NUVSysCodePage&>(GetEnvConverter());
  c._Reinitialize(env.codePage, env.localeEntry);
}

// ---- public conversions ----

namespace {

// The resumable form over one setup, with the exported form's results: the
// units written, or (size_t)-1 when the UTF-8 transform refuses. `len` bytes
// at most INT_MAX, as the exported form has always limited one call.
size_t resumable(const CodePageState& s, const char*& src, size_t& srcLen, unsigned short* dst,
                 size_t dstCap) noexcept {
  const size_t len = srcLen < INT_MAX ? srcLen : INT_MAX;
  const CodeStep step = decodeCodePage(s, src, len, dst, dstCap < INT_MAX ? dstCap : INT_MAX);
  if (step.status != CodeStatus::Ok) return static_cast<size_t>(-1);
  // The UTF-8 transform lets go of the text once it has used up what it was given.
  src = s.kind == CodePageKind::Utf8 && step.consumed == len ? nullptr : src + step.consumed;
  srcLen -= step.consumed;
  if (srcLen == 0) src = nullptr;
  return step.written;
}

int oneShot(const CodePageState& s, const char* src, int srcLen, unsigned short* dst) noexcept {
  return static_cast<int>(decodeCodePage(s, src, static_cast<size_t>(srcLen), dst, kUnbounded).written);
}

int toMBCS(const CodePageState& s, const unsigned short* src, int n, char* dst, int* dstLen) noexcept {
  const CodeStep step = encodeCodePage(s, src, static_cast<size_t>(n), dst, dstLen != nullptr);
  if (dstLen != nullptr) *dstLen = static_cast<int>(step.written);
  return static_cast<int>(step.written);
}

}  // namespace

int NUVSysCodePage::ConvertMBCSToUTF16(const char* src, int srcLen, unsigned short* dst, int* dstLen) const {
  int units = 0;
  const CodePageState* s = _setup.load(std::memory_order_acquire);
  if (src != nullptr && dst != nullptr && srcLen >= 0 && s != nullptr) units = oneShot(*s, src, srcLen, dst);
  if (dstLen != nullptr) *dstLen = units;
  return units;
}

size_t NUVSysCodePage::ConvertMBCSToUTF16(const char*& src, size_t& srcLen, unsigned short* dst,
                                          size_t dstCap) const {
  const CodePageState* s = _setup.load(std::memory_order_acquire);
  if (src == nullptr || dst == nullptr || dstCap == 0 || s == nullptr) return 0;
  return resumable(*s, src, srcLen, dst, dstCap);
}

int NUVSysCodePage::ConvertUTF16ToMBCS(const unsigned short* src, int n, char* dst, int* dstLen) const {
  const CodePageState* s = _setup.load(std::memory_order_acquire);
  if (src == nullptr || dst == nullptr || n < 0 || s == nullptr) {
    if (dstLen != nullptr) *dstLen = 0;
    return 0;
  }
  return toMBCS(*s, src, n, dst, dstLen);
}

// ---- iconv methods ----

namespace {

// The character-type locale of one name, made once per thread: the recovery
// after a refused character measures that character under it, and making a
// locale object for every refused character would cost far more than the
// conversion itself.
struct CtypeLocale {
  std::string name;
  locale_t locale = static_cast<locale_t>(nullptr);
  ~CtypeLocale() {
    if (locale != static_cast<locale_t>(nullptr)) FreeLocale(locale);
  }
};
thread_local CtypeLocale t_ctype;

locale_t ctypeLocale(const char* name) {
  if (t_ctype.locale != static_cast<locale_t>(nullptr) && t_ctype.name == name) return t_ctype.locale;
  const locale_t l = NewLocale(LC_CTYPE_MASK, name, static_cast<locale_t>(nullptr));
  if (l == static_cast<locale_t>(nullptr)) return l;
  if (t_ctype.locale != static_cast<locale_t>(nullptr)) FreeLocale(t_ctype.locale);
  t_ctype.locale = l;
  t_ctype.name = name;
  return l;
}

}  // namespace

size_t NUVSysCodePage::_mbrlen_s(const char* localeName, const char* s, size_t max, mbstate_t* state) {
  if (localeName == nullptr) return 1;
  size_t n;
  if (const locale_t l = ctypeLocale(localeName); l != static_cast<locale_t>(nullptr)) {
    const locale_t previous = g_sys.useLocale(l);
    n = std::mbrlen(s, max, state);
    g_sys.useLocale(previous);
  } else {
    // Not a name newlocale takes: the per-thread switch and its fallback.
    int rc = 0;
    NUVSysCLocale::ThreadLC lc(LC_CTYPE, localeName, &rc);
    n = std::mbrlen(s, max, state);
  }
  return n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2) ? 1 : n;
}

namespace {

// Code page to UTF-16 through iconv (or the single-byte table standing for
// it). A character iconv refuses becomes the unit 0x3F00 and the conversion
// goes on after it; no terminator.
CodeStep decodeIconv(const CodePageState& s, const char* src, size_t len, unsigned short* dst,
                     size_t cap) noexcept {
  iconv_t cd = NUVSysIConvTSWrap::GetIConvDesc(s.toUcs);
  if (cd == kNoDescriptor) return decodeCodePage(CodePageState{}, src, len, dst, cap);
  // A single-byte code page converts through its table, which stops where
  // iconv would and for the same reason; the recovery below is shared.
  const ByteDecoder* table = byteDecoder(s.toUcs, cd);
  char* in = const_cast<char*>(src);
  size_t inLeft = len;
  char* const out0 = reinterpret_cast<char*>(dst);
  char* out = out0;
  size_t outLeft = 2 * (cap != kUnbounded ? cap : len);
  std::mbstate_t state{};
  size_t maxChar = 0;
  for (;;) {
    int e;
    if (table != nullptr) {
      const RunEnd end = decodeRun(*table, in, inLeft, out, outLeft);
      if (end == RunEnd::Input) break;
      e = end == RunEnd::Refused ? EILSEQ : E2BIG;
    } else {
      if (g_sys.iconv(cd, &in, &inLeft, &out, &outLeft) != static_cast<size_t>(-1) || inLeft == 0) break;
      e = errno;
    }
    if (e == E2BIG) break;  // out of room: the caller converts the rest in its next call
    if (e == EINVAL) {
      Diagnose(stderr, kDiagnoseFlush, "iconv EINVAL error: input buffer was truncated.\n");
    } else if (e != EILSEQ) {
      Diagnose(stderr, kDiagnoseFlush, "iconv errno is: %d\n", e);
    }
    // Skip the character iconv refused and write the replacement unit.
    if (maxChar == 0) maxChar = static_cast<size_t>(NUVGetMultiByteCharMaxSize());
    size_t skip = NUVSysCodePage::_mbrlen_s(s.cLocale, in, maxChar < inLeft ? maxChar : inLeft, &state);
    if (skip == 0) skip = 1;  // a NUL iconv refused: one byte
    if (skip > inLeft) {
      in += inLeft;
      inLeft = 0;
      break;
    }
    in += skip;
    inLeft -= skip;
    if (outLeft < 2) break;
    out[0] = 0x00;  // UTF-16LE bytes 00 3F: the unit 0x3F00
    out[1] = 0x3F;
    out += 2;
    outLeft -= 2;
    if (inLeft == 0) break;
  }
  g_sys.iconv(cd, nullptr, nullptr, nullptr, nullptr);
  return {len - inLeft, static_cast<size_t>(out - out0) / 2, CodeStatus::Ok};
}

// UTF-16 to code page through iconv (or the single-byte table): a unit iconv
// refuses becomes '?'. Terminated.
CodeStep encodeIconv(const CodePageState& s, const unsigned short* src, size_t n, char* dst) noexcept {
  iconv_t cd = NUVSysIConvTSWrap::GetIConvDesc(s.fromUcs);
  if (cd == kNoDescriptor) return encodeCodePage(CodePageState{}, src, n, dst, true);
  const ByteEncoder* table = nullptr;
  if (byteEncoderDecided(s.fromUcs)) {
    table = byteEncoder(s.fromUcs, cd, nullptr);
  } else {
    // First use: whether the code page qualifies is the decoder's to say.
    const iconv_t toCd = NUVSysIConvTSWrap::GetIConvDesc(s.toUcs);
    table = byteEncoder(s.fromUcs, cd, toCd != kNoDescriptor ? byteDecoder(s.toUcs, toCd) : nullptr);
  }
  size_t bytes;
  if (table != nullptr) {
    bytes = encodeUnits(*table, cd, src, n, dst);
  } else {
    char* in = reinterpret_cast<char*>(const_cast<unsigned short*>(src));
    size_t inLeft = 2 * n;
    char* out = dst;
    size_t outLeft = 4 * n;
    while (inLeft > 0) {
      if (g_sys.iconv(cd, &in, &inLeft, &out, &outLeft) != static_cast<size_t>(-1)) break;
      if (inLeft == 0 || outLeft == 0) break;
      *out++ = '?';
      --outLeft;
      in += 2;
      inLeft = inLeft >= 2 ? inLeft - 2 : 0;
    }
    bytes = static_cast<size_t>(out - dst);
  }
  dst[bytes] = '\0';
  g_sys.iconv(cd, nullptr, nullptr, nullptr, nullptr);
  return {n, bytes, CodeStatus::Ok};
}

// The library's lenient UTF-8: the one-shot form converts everything with
// the unchecked transform; the bounded one follows ConvertUTF8ToUTF16's rule.
// Both terminate.
CodeStep decodeUtf8Text(const char* src, size_t len, unsigned short* dst, size_t cap) noexcept {
  if (cap == kUnbounded) {
    unsigned short* end = NUVSysUCAlgorithm::unchecked::utf8to16(src, src + len, dst);
    *end = 0;
    return {len, static_cast<size_t>(end - dst), CodeStatus::Ok};
  }
  const char* p = src;
  int left = static_cast<int>(len);
  const unsigned units = NUVSysUCAlgorithm::ConvertUTF8ToUTF16(p, left, dst, static_cast<unsigned>(cap));
  if (units == 0xFFFFFFFFu) return {0, 0, CodeStatus::Refused};
  dst[units] = 0;
  return {len - static_cast<size_t>(left), units, CodeStatus::Ok};
}

// Bytes widen to units, up to the room; terminated when all input was used.
CodeStep decodeIdentity(const char* src, size_t len, unsigned short* dst, size_t cap) noexcept {
  const size_t count = cap < len ? cap : len;
  const auto* s = reinterpret_cast<const unsigned char*>(src);
  for (size_t i = 0; i < count; ++i) dst[i] = s[i];
  if (count == len) dst[count] = 0;
  return {count, count, CodeStatus::Ok};
}

}  // namespace

namespace systemts::detail {

CodeStep decodeCodePage(const CodePageState& s, const char* src, size_t len, unsigned short* dst,
                        size_t cap) noexcept {
  switch (s.kind) {
    case CodePageKind::Utf8:
      return decodeUtf8Text(src, len, dst, cap);
    case CodePageKind::Iconv:
      return decodeIconv(s, src, len, dst, cap);
    case CodePageKind::Identity:
      break;
  }
  return decodeIdentity(src, len, dst, cap);
}

CodeStep encodeCodePage(const CodePageState& s, const unsigned short* src, size_t n, char* dst,
                        bool terminate) noexcept {
  switch (s.kind) {
    case CodePageKind::Utf8: {
      char* end = NUVSysUCAlgorithm::unchecked::utf16to8(src, src + n, dst);
      if (terminate) *end = '\0';
      return {n, static_cast<size_t>(end - dst), CodeStatus::Ok};
    }
    case CodePageKind::Iconv:
      return encodeIconv(s, src, n, dst);
    case CodePageKind::Identity:
      break;
  }
  for (size_t i = 0; i < n; ++i) dst[i] = static_cast<char>(src[i] & 0xFF);
  dst[n] = '\0';
  return {n, n, CodeStatus::Ok};
}

}  // namespace systemts::detail

// ---- two-way tests ----

int NUVSysCodePage::CanConvertMBCSToUTF16(const char* text, size_t len) const {
  if (text == nullptr) return 0;
  // One setup for the whole scan, even when the language changes meanwhile.
  const CodePageState* s = _setup.load(std::memory_order_acquire);
  const char* p = text;
  size_t left = len;
  while (left > 0) {
    // Kept: a '?' is not stepped over (see the header). The volatile read
    // keeps the loop a defined, observable wait rather than one the compiler
    // may assume to end.
    if (*static_cast<const volatile char*>(p) == '?') continue;
    unsigned short unit[2];  // one unit and the terminating 0 some methods add
    const char* q = p;
    size_t l = left;
    size_t got = s != nullptr ? resumable(*s, q, l, unit, 1) : 0;
    const size_t consumed = left - l;
    if (got == 0 && consumed == 0 && s != nullptr && s->kind == CodePageKind::Utf8) {
      // The UTF-8 method converts the rest in one go at a capacity of 1 and
      // refuses when it is more than one unit: the overflow it always was.
      got = 2;
    }
    if (got == 0) return -1;
    if (got != 1) {
      Diagnose(stderr, kDiagnoseFlush,
               "ERROR: NUVSysCodePage::CanConvertMBCSToUTF16 - an overflow has occurred!");
      return -1;
    }
    // The unit must give back exactly the bytes it came from. A bounded call
    // whose one unit is used up skips a refused character after it without a
    // replacement: those bytes are consumed but come back from nothing.
    char back[5] = {};
    const int produced = toMBCS(*s, unit, 1, back, nullptr);
    if (produced < 1 || static_cast<size_t>(produced) != consumed || std::memcmp(back, p, consumed) != 0) {
      return -1;
    }
    p += consumed;
    left = l;
  }
  return 0;
}

int NUVSysCodePage::CanConvertUTF16ToMBCS(const unsigned short* text, int n) const {
  if (text == nullptr || n < 1) return 0;
  const CodePageState* s = _setup.load(std::memory_order_acquire);
  for (int i = 0; i < n; ++i) {
    if (text[i] == 0x3F) continue;
    if (s == nullptr) return -1;  // an empty converter gives nothing back
    char bytes[8] = {};
    int produced = 0;
    toMBCS(*s, &text[i], 1, bytes, &produced);
    unsigned short back[16] = {};
    const int units = oneShot(*s, bytes, produced, back);
    if (units < 1 || back[0] != text[i]) return -1;
  }
  return 0;
}

// ---- one character ----

int NUVSysCodePage::GetNextMultiByteCharAsUTF16(const char*& p, unsigned short* out) const {
  const CodePageState* s = _setup.load(std::memory_order_acquire);
  if (p == nullptr || out == nullptr || s == nullptr) return 0;
  if (s->kind == CodePageKind::Utf8) {
    const auto* b = reinterpret_cast<const uint8_t*>(p);
    const uint32_t cp = decodeUtf8(b, b + readable(p, 4));
    p = reinterpret_cast<const char*>(b);
    return static_cast<int>(appendUtf16(cp, reinterpret_cast<uint16_t*>(out)) - reinterpret_cast<uint16_t*>(out));
  }
  // The methods may terminate their result: convert into room of our own.
  unsigned short units[4];
  const char* const start = p;
  const size_t avail = readable(p, 4);
  for (size_t cap : {1, 2}) {
    const CodeStep step = decodeCodePage(*s, start, avail, units, cap);
    const char* const q = start + step.consumed;
    const size_t got = step.written;
    if (got > 0) {
      out[0] = units[0];
      if (got > 1) out[1] = units[1];
      p = q;
      return got > 2 ? 2 : static_cast<int>(got);
    }
    if (cap == 2) p = q != start ? q : start + 1;
  }
  if (*start == '\0') {
    out[0] = 0;
    return 1;
  }
  return 0;
}

int NUVSysCodePage::GetNextMultiByteCharAsUTF32(const char*& p, unsigned int& out) const {
  unsigned short units[2] = {};
  const int n = GetNextMultiByteCharAsUTF16(p, units);
  if (n == 0) return 0;
  if (n == 2 && isHighSurrogate(units[0]) && units[1] >= 0xDC00u && units[1] <= 0xDFFFu) {
    out = (static_cast<uint32_t>(units[0]) << 10) + units[1] + kSurrogateOffset;
  } else {
    out = units[0];
  }
  return 1;
}

int NUVSysCodePage::GetNextMultiByteCharAsUTF8(const char*& p, char* out) const {
  if (p == nullptr || out == nullptr) return 0;
  const CodePageState* s = _setup.load(std::memory_order_acquire);
  if (s != nullptr && s->kind == CodePageKind::Utf8) {
    const auto lead = static_cast<unsigned char>(*p);
    size_t n = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 1;
    const size_t avail = readable(p, 4);
    if (n > avail) n = avail;
    std::memcpy(out, p, n);
    p += n;
    return static_cast<int>(n);
  }
  unsigned int cp = 0;
  if (GetNextMultiByteCharAsUTF32(p, cp) == 0) return 0;
  auto* o = reinterpret_cast<uint8_t*>(out);
  return static_cast<int>(appendUtf8(cp, o) - o);
}

// ---- the V3 hash of code-page text ----
// It lives beside the converter it goes through, so that the UTF layer below
// never reaches up for the environment converter.

// The setup is read once, so a change of language while a long text is
// hashed gives the hash under the old code page or under the new one, never
// a mixture of the two.
unsigned int systemts::detail::hashCodePageText(const NUVSysCodePage& cp, const char* text, size_t n,
                                                unsigned int seed) {
  const CodePageState* s = cp._setup.load(std::memory_order_acquire);
  if (s == nullptr) return seed;
  const UtfKernels& k = utfKernels();
  uint32_t h = seed;
  // 256 units a round, and one more for the terminator the step writes.
  unsigned short buf[257];
  const char* p = text;
  size_t left = n;
  while (p != nullptr && left > 0) {
    const size_t got = resumable(*s, p, left, buf, 256);
    if (got == 0 || got > 256) break;  // nothing converts, or refused
    h = k.hashUnits(reinterpret_cast<const uint16_t*>(buf), got, h);
  }
  return h;
}

unsigned int NUVSysUCAlgorithm::HashV3FromMBCS(const char* text, unsigned long n,
                                               unsigned int seed,
                                               const NUVSysCodePage* codePage) {
  if (!text) return seed;
  return systemts::detail::hashCodePageText(codePage ? *codePage : NUVSysCodePage::GetEnvConverter(),
                                            text, n, seed);
}

unsigned int NUVSysUCAlgorithm::HashV3FromMBCSOptimistic(const char* text, unsigned long n,
                                                         unsigned int seed,
                                                         const NUVSysCodePage* codePage) {
  if (!text) return seed;
  const UtfKernels& k = utfKernels();
  const size_t ascii = k.asciiPrefix(reinterpret_cast<const uint8_t*>(text), n);
  const uint32_t h = k.hashBytes(reinterpret_cast<const uint8_t*>(text), ascii, seed);
  return ascii == n ? h : HashV3FromMBCS(text + ascii, n - ascii, h, codePage);
}

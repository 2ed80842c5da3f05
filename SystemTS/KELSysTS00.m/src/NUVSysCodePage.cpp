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
#include <new>
#include <string>

#include "Diagnostics.h"
#include "KELMutex.h"
#include "LocaleDatabase.h"
#include "NUVSysCLocale.h"
#include "NUVSysUCAlgorithm.h"
#include "SingleByteTables.h"
#include "SysCalls.h"
#include "UTFCore.h"

using namespace systemts::detail;

namespace {

constexpr size_t kLocaleBuffer = 85;

// Bytes of the NUL-terminated text at p that a one-character decode may read:
// at most `max`, and never past the terminating NUL (which is included).
size_t readable(const char* p, size_t max) {
  const size_t n = strnlen(p, max);
  return n < max ? n + 1 : max;
}

}  // namespace

std::atomic<NUVSysCodePage*> NUVSysCodePage::_sCPConverter{nullptr};

// ---- construction ----

NUVSysCodePage::NUVSysCodePage()
    : _codePage(nullptr), _toUTF16(nullptr), _fromUTF16(nullptr), _cLocale(nullptr), _toUcs(0), _fromUcs(0),
      _isUTF8(0) {}

NUVSysCodePage::NUVSysCodePage(const char* codePage) : NUVSysCodePage() { _Reinitialize(codePage, nullptr); }

NUVSysCodePage::~NUVSysCodePage() {
  std::free(_codePage);
  delete[] _cLocale;
}

void NUVSysCodePage::setIdentity() {
  _isUTF8 = 0;
  if (_cLocale != nullptr) std::strcpy(_cLocale, "C");
  _toUTF16 = &NUVSysCodePage::_CPtoUC2ByIdentity;
  _fromUTF16 = &NUVSysCodePage::_UC2toCPByIdentity;
  setName("Identity");
}

void NUVSysCodePage::setName(const char* name) {
  // A name that cannot be copied leaves none rather than the previous one,
  // which would no longer say what the converter does.
  std::free(_codePage);
  _codePage = CopyName(name);
}

void NUVSysCodePage::_Reinitialize(const char* codePage, const char* localeEntry) {
  if (codePage == nullptr) {
    setIdentity();
    return;
  }
  if (_codePage != nullptr && std::strcmp(_codePage, codePage) == 0) return;
  _isUTF8 = 0;
  if (_cLocale != nullptr) std::strcpy(_cLocale, "C");
  if (std::strcmp(codePage, "UTF-8") == 0) {
    _isUTF8 = 1;
    _toUTF16 = &NUVSysCodePage::_UTF8toUTF16;
    _fromUTF16 = &NUVSysCodePage::_UTF16toUTF8;
  } else if (_InitConvDesc(codePage) < 0) {
    setIdentity();
    return;
  } else {
    _toUTF16 = &NUVSysCodePage::_CPtoUC2;
    _fromUTF16 = &NUVSysCodePage::_UC2toCP;
  }
  if (localeEntry != nullptr) {
    if (_cLocale == nullptr) {
      _cLocale = new (std::nothrow) char[kLocaleBuffer];
      if (_cLocale != nullptr) std::strcpy(_cLocale, "C");
    }
    if (_cLocale != nullptr && NUVSysCLocale::GetLocaleStringFromLangString(localeEntry, _cLocale, kLocaleBuffer) != 0) {
      std::strcpy(_cLocale, "C");
    }
  }
  setName(codePage);
}

int NUVSysCodePage::_InitConvDesc(const char* codePage) {
  if (_isUTF8 != 0) return 1;
  if (codePage == nullptr || std::strcmp(codePage, "N/A") == 0) return E_FAIL;
  int rc = NUVSysIConvTSWrap::Open("UTF-16LE", codePage, _toUcs);
  if (rc == S_OK) rc = NUVSysIConvTSWrap::Open(codePage, "UTF-16LE", _fromUcs);
  // Registering opens nothing: make sure iconv really knows the code page,
  // so that an unknown one becomes an identity converter as promised.
  if (rc == S_OK && (NUVSysIConvTSWrap::GetIConvDesc(_toUcs) == kNoDescriptor ||
                     NUVSysIConvTSWrap::GetIConvDesc(_fromUcs) == kNoDescriptor)) {
    rc = E_FAIL;
  }
  if (rc != S_OK) {
    Diagnose(stderr, kDiagnoseFlush,
             "ERROR: SUPPLANG_K2 does not contain a valid code set for code page: %s.\n", codePage);
  }
  return rc;
}

const char* NUVSysCodePage::_GetAssociatedCLocale() const { return _cLocale != nullptr ? _cLocale : "C"; }

bool NUVSysCodePage::IsValid() const { return _toUTF16 != nullptr && _toUTF16 != &NUVSysCodePage::_CPtoUC2ByIdentity; }

// ---- the environment converter ----

const NUVSysCodePage& NUVSysCodePage::GetEnvConverter() {
  if (NUVSysCodePage* c = _sCPConverter.load(std::memory_order_acquire)) return *c;
  KELSysMTGlobalMutex(1, nullptr, 0);
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
  KELSysMTGlobalMutex(2, nullptr, 0);
  return *_sCPConverter.load(std::memory_order_acquire);
}

void NUVSysCodePage::OnChangeNLSCore(const NUVSysNLSEnv& env) {
  auto& c = const_cast<NUVSysCodePage&>(GetEnvConverter());
  c._Reinitialize(env.codePage, env.localeEntry);
}

// ---- public conversions ----

int NUVSysCodePage::ConvertMBCSToUTF16(const char* src, int srcLen, unsigned short* dst, int* dstLen) const {
  int units = 0;
  if (src != nullptr && dst != nullptr && srcLen >= 0 && _toUTF16 != nullptr) {
    int cap = -1;
    (this->*_toUTF16)(src, srcLen, dst, cap);
    units = cap;
  }
  if (dstLen != nullptr) *dstLen = units;
  return units;
}

size_t NUVSysCodePage::ConvertMBCSToUTF16(const char*& src, size_t& srcLen, unsigned short* dst,
                                          size_t dstCap) const {
  if (src == nullptr || dst == nullptr || dstCap == 0 || _toUTF16 == nullptr) return 0;
  const int len = static_cast<int>(srcLen < INT_MAX ? srcLen : INT_MAX);
  int left = len;
  int cap = static_cast<int>(dstCap < INT_MAX ? dstCap : INT_MAX);
  const int units = (this->*_toUTF16)(src, left, dst, cap);
  if (units < 0) return static_cast<size_t>(-1);
  srcLen -= static_cast<size_t>(len - left);
  if (srcLen == 0) src = nullptr;
  return static_cast<size_t>(units);
}

int NUVSysCodePage::ConvertUTF16ToMBCS(const unsigned short* src, int n, char* dst, int* dstLen) const {
  if (src == nullptr || dst == nullptr || n < 0 || _fromUTF16 == nullptr) {
    if (dstLen != nullptr) *dstLen = 0;
    return 0;
  }
  return (this->*_fromUTF16)(src, n, dst, dstLen);
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

int NUVSysCodePage::_CPtoUC2(const char*& src, int& srcLen, unsigned short* dst, int& dstCap) const {
  iconv_t cd = NUVSysIConvTSWrap::GetIConvDesc(_toUcs);
  if (cd == kNoDescriptor) return _CPtoUC2ByIdentity(src, srcLen, dst, dstCap);
  // A single-byte code page converts through its table, which stops where
  // iconv would and for the same reason; the recovery below is shared.
  const ByteDecoder* table = byteDecoder(_toUcs, cd);
  char* in = const_cast<char*>(src);
  size_t inLeft = static_cast<size_t>(srcLen);
  char* const out0 = reinterpret_cast<char*>(dst);
  char* out = out0;
  size_t outLeft = 2 * static_cast<size_t>(dstCap >= 1 ? dstCap : srcLen);
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
    if (e == E2BIG) {
      if (dstCap == 0) {
        Diagnose(stderr, kDiagnoseFlush, "iconv E2BIG error: buffer overflow. InBytesLeft: %llu\n",
                 static_cast<unsigned long long>(inLeft));
      }
      break;
    }
    if (e == EINVAL) {
      Diagnose(stderr, kDiagnoseFlush, "iconv EINVAL error: input buffer was truncated.\n");
    } else if (e != EILSEQ) {
      Diagnose(stderr, kDiagnoseFlush, "iconv errno is: %d\n", e);
    }
    // Skip the character iconv refused and write the replacement unit.
    if (maxChar == 0) maxChar = static_cast<size_t>(NUVGetMultiByteCharMaxSize());
    size_t skip = _mbrlen_s(_GetAssociatedCLocale(), in, maxChar < inLeft ? maxChar : inLeft, &state);
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
  const int units = static_cast<int>((out - out0) / 2);
  src = in;
  srcLen = static_cast<int>(inLeft);
  dstCap = units;
  g_sys.iconv(cd, nullptr, nullptr, nullptr, nullptr);
  return units;
}

int NUVSysCodePage::_UC2toCP(const unsigned short* src, int n, char* dst, int* dstLen) const {
  iconv_t cd = NUVSysIConvTSWrap::GetIConvDesc(_fromUcs);
  if (cd == kNoDescriptor) return _UC2toCPByIdentity(src, n, dst, dstLen);
  const ByteEncoder* table = nullptr;
  if (byteEncoderDecided(_fromUcs)) {
    table = byteEncoder(_fromUcs, cd, nullptr);
  } else {
    // First use: whether the code page qualifies is the decoder's to say.
    const iconv_t toCd = NUVSysIConvTSWrap::GetIConvDesc(_toUcs);
    table = byteEncoder(_fromUcs, cd, toCd != kNoDescriptor ? byteDecoder(_toUcs, toCd) : nullptr);
  }
  if (table != nullptr) {
    const int bytes = static_cast<int>(encodeUnits(*table, cd, src, static_cast<size_t>(n), dst));
    dst[bytes] = '\0';
    if (dstLen != nullptr) *dstLen = bytes;
    g_sys.iconv(cd, nullptr, nullptr, nullptr, nullptr);
    return bytes;
  }
  char* in = reinterpret_cast<char*>(const_cast<unsigned short*>(src));
  size_t inLeft = 2 * static_cast<size_t>(n);
  char* out = dst;
  size_t outLeft = 4 * static_cast<size_t>(n);
  while (inLeft > 0) {
    if (g_sys.iconv(cd, &in, &inLeft, &out, &outLeft) != static_cast<size_t>(-1)) break;
    if (inLeft == 0 || outLeft == 0) break;
    *out++ = '?';
    --outLeft;
    in += 2;
    inLeft = inLeft >= 2 ? inLeft - 2 : 0;
  }
  const int bytes = static_cast<int>(out - dst);
  dst[bytes] = '\0';
  if (dstLen != nullptr) *dstLen = bytes;
  g_sys.iconv(cd, nullptr, nullptr, nullptr, nullptr);
  return bytes;
}

// ---- UTF-8 methods ----

int NUVSysCodePage::_UTF8toUTF16(const char*& src, int& srcLen, unsigned short* dst, int& dstCap) const {
  if (dstCap == -1) {
    unsigned short* end = NUVSysUCAlgorithm::unchecked::utf8to16(src, src + srcLen, dst);
    *end = 0;
    dstCap = static_cast<int>(end - dst);
    return dstCap;
  }
  if (dstCap < 1) return dstCap;
  const unsigned units = NUVSysUCAlgorithm::ConvertUTF8ToUTF16(src, srcLen, dst, static_cast<unsigned>(dstCap));
  if (units == 0xFFFFFFFFu) return -1;
  dst[units] = 0;
  dstCap = static_cast<int>(units);
  return dstCap;
}

int NUVSysCodePage::_UTF16toUTF8(const unsigned short* src, int n, char* dst, int* dstLen) const {
  char* end = NUVSysUCAlgorithm::unchecked::utf16to8(src, src + n, dst);
  const int bytes = static_cast<int>(end - dst);
  if (dstLen != nullptr) {
    *end = '\0';
    *dstLen = bytes;
  }
  return bytes;
}

// ---- identity methods ----

int NUVSysCodePage::_CPtoUC2ByIdentity(const char*& src, int& srcLen, unsigned short* dst, int& dstCap) const {
  int count = srcLen;
  if (dstCap >= 1 && count > dstCap) count = dstCap;
  const auto* s = reinterpret_cast<const unsigned char*>(src);
  for (int i = 0; i < count; ++i) dst[i] = s[i];
  if (count == srcLen) dst[count] = 0;
  src += count;
  srcLen -= count;
  dstCap = count;
  return count;
}

int NUVSysCodePage::_UC2toCPByIdentity(const unsigned short* src, int n, char* dst, int* dstLen) const {
  for (int i = 0; i < n; ++i) dst[i] = static_cast<char>(src[i] & 0xFF);
  dst[n] = '\0';
  if (dstLen != nullptr) *dstLen = n;
  return n;
}

// ---- two-way tests ----

int NUVSysCodePage::CanConvertMBCSToUTF16(const char* text, size_t len) const {
  if (text == nullptr) return 0;
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
    size_t got = ConvertMBCSToUTF16(q, l, unit, 1);
    const size_t consumed = left - l;
    if (got == 0 && consumed == 0 && _isUTF8 != 0) {
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
    int produced = 0;
    ConvertUTF16ToMBCS(unit, 1, back, &produced);
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
  for (int i = 0; i < n; ++i) {
    if (text[i] == 0x3F) continue;
    char bytes[8] = {};
    int produced = 0;
    ConvertUTF16ToMBCS(&text[i], 1, bytes, &produced);
    unsigned short back[16] = {};
    const int units = ConvertMBCSToUTF16(bytes, produced, back, nullptr);
    if (units < 1 || back[0] != text[i]) return -1;
  }
  return 0;
}

// ---- one character ----

int NUVSysCodePage::GetNextMultiByteCharAsUTF16(const char*& p, unsigned short* out) const {
  if (p == nullptr || out == nullptr || _toUTF16 == nullptr) return 0;
  if (_isUTF8 != 0) {
    const auto* s = reinterpret_cast<const uint8_t*>(p);
    const uint32_t cp = decodeUtf8(s, s + readable(p, 4));
    p = reinterpret_cast<const char*>(s);
    return static_cast<int>(appendUtf16(cp, reinterpret_cast<uint16_t*>(out)) - reinterpret_cast<uint16_t*>(out));
  }
  // The methods may terminate their result: convert into room of our own.
  unsigned short units[4];
  const char* const start = p;
  const int avail = static_cast<int>(readable(p, 4));
  for (int cap : {1, 2}) {
    const char* q = start;
    int len = avail;
    int room = cap;
    const int got = (this->*_toUTF16)(q, len, units, room);
    if (got > 0) {
      out[0] = units[0];
      if (got > 1) out[1] = units[1];
      p = q;
      return got > 2 ? 2 : got;
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
  if (_isUTF8 != 0) {
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

unsigned int NUVSysUCAlgorithm::HashV3FromMBCS(const char* text, unsigned long n,
                                               unsigned int seed,
                                               const NUVSysCodePage* codePage) {
  if (!text) return seed;
  const NUVSysCodePage& cp = codePage ? *codePage : NUVSysCodePage::GetEnvConverter();
  const UtfKernels& k = utfKernels();
  uint32_t h = seed;
  // 256 units a round, and one more for the terminator some methods write.
  unsigned short buf[257];
  const char* p = text;
  size_t left = n;
  while (p && left > 0) {
    const size_t got = cp.ConvertMBCSToUTF16(p, left, buf, 256);
    if (got == 0 || got > 256) break;  // nothing converts (or refused): stop
    h = k.hashUnits(reinterpret_cast<const uint16_t*>(buf), got, h);
  }
  return h;
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

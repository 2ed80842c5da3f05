// KELUnicodeString::BuildFromUTF8 followed by every conversion out. The
// UTF-16 text equals the library's bounded transform of the same bytes; the
// UTF-8 written back equals the transform of those units, in one go and into
// a caller's buffer of any size (a prefix of whole characters, the full
// length returned); valid UTF-8 comes back byte for byte; the multi-byte
// view (the process code page is UTF-8 here) and the hash agree.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "KELUnicodeString.h"
#include "NUVSysUCAlgorithm.h"
#include "ustring_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const unsigned capacitySeed = data[0];
  const std::string in(reinterpret_cast<const char*>(data) + 1, size - 1);
  const int n = static_cast<int>(in.size());

  KELUnicodeString s;
  if (s.BuildFromUTF8(in.data(), n) != 0) abort();

  std::vector<unsigned short> ref(in.size() + 2);
  const char* p = in.data();
  int left = n;
  const unsigned units = NUVSysUCAlgorithm::ConvertUTF8ToUTF16(p, left, ref.data(), static_cast<unsigned>(ref.size()));
  ref.resize(units);
  if (s.GetLengthInChar() != static_cast<int>(units)) abort();
  if (std::memcmp(s.ConvertToUCChar(), ref.data(), 2 * units) != 0 || s.ConvertToUCChar()[units] != 0) abort();
  if (s.IsNull() != (units == 0)) abort();

  std::string utf8(3 * units + 2, '\0');
  utf8.resize(static_cast<size_t>(
      NUVSysUCAlgorithm::unchecked::utf16to8(ref.data(), ref.data() + units, &utf8[0]) - utf8.data()));
  if (s.ConvertToUTF8() != utf8) abort();
  const char* q = in.data();
  if (NUVSysUCAlgorithm::IsUTF8(q, in.size()) == 0 && utf8 != in) abort();

  // Into a buffer of any capacity: whole characters only, NUL-terminated, the
  // full length returned.
  const int cap = static_cast<int>(capacitySeed % (utf8.size() + 2));
  std::vector<char> buf(static_cast<size_t>(cap) + 1, '\x55');
  if (s.ConvertToUTF8(cap == 0 ? nullptr : buf.data(), cap) != static_cast<int>(utf8.size())) abort();
  if (cap > 0) {
    const size_t got = std::strlen(buf.data());
    if (got >= static_cast<size_t>(cap) || utf8.compare(0, got, buf.data(), got) != 0) abort();
    if (got < utf8.size() && (static_cast<unsigned char>(utf8[got]) & 0xC0) == 0x80) abort();
    if (buf[static_cast<size_t>(cap)] != '\x55') abort();
  }

  // wchar_t: one item per code point, never more than the units.
  const std::wstring wide = s.ConvertToWChar();
  if (wide.size() > units) abort();

  // The multi-byte view on a UTF-8 code page is the same UTF-8.
  const std::string mb(s.ConvertToChar(), static_cast<size_t>(s.GetLengthInByte()));
  if (mb != utf8) abort();

  const unsigned hash = NUVSysUCAlgorithm::HashV3FromUCS2(ref.data(), units, 0) & 0x7FFFFFFFu;
  if (s.ComputeHashKey() != hash) abort();
  if (wellFormed(ref)) {
    const KELUnicodeString round = KELUnicodeString::FromUTF8(utf8);
    if (!(round == s) || round.Compare(s) != 0) abort();
    if (utf8.find('\0') == std::string::npos) {  // the code page form of the same text
      const KELUnicodeString m(utf8.c_str());
      if (!(m == s) || m.ComputeHashKey() != hash) abort();
    }
  }
  return 0;
}

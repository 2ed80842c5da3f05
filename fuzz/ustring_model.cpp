// A random sequence of operations on three KELUnicodeString objects, checked
// after every step against a std::u16string model: copies, concatenation,
// insertion, removal, replacement, resizing, stripping, case mapping, search,
// packing and the multi-byte form, so that copy-on-write, the shared empty
// string and the view and hash caches are exercised together. Each operation
// is three bytes: opcode, then two operands.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "KELUnicodeString.h"
#include "ustring_fuzz.h"

namespace {

const char16_t kAlphabet[] = u"aB \u00E9\u00C9\u03C3\u03A3\u4E2D\t\U0001F600\U00010400";
constexpr size_t kAlphabetSize = sizeof kAlphabet / sizeof kAlphabet[0] - 1;

void check(bool ok) {
  if (!ok) abort();
}

bool isSpace(char16_t u) { return u == u' ' || u == u'\t'; }

// The operations stop once the three texts together pass this many units.
// Appends of a string to itself double it, and every step checks all three
// texts whole: uncapped, long inputs spend their time copying and comparing
// long texts rather than reaching new states.
constexpr size_t kMaxModelUnits = 512;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  KELUnicodeString s[3];
  std::u16string m[3];
  for (size_t at = 0; at + 3 <= size && m[0].size() + m[1].size() + m[2].size() <= kMaxModelUnits; at += 3) {
    const unsigned op = data[at], x = data[at + 1], y = data[at + 2];
    const size_t i = op % 3, j = x % 3;
    KELUnicodeString& str = s[i];
    std::u16string& mod = m[i];
    const int a = static_cast<int>(x % 24) - 2, b = static_cast<int>(y % 24) - 2;
    const size_t pa = a < 0 ? 0 : std::min(static_cast<size_t>(a), mod.size());
    const size_t nb = b < 0 ? mod.size() - pa : std::min(static_cast<size_t>(b), mod.size() - pa);
    switch ((op / 3) % 16) {
      case 0: {  // a character of the alphabet
        const char16_t u = kAlphabet[y % kAlphabetSize];
        str += u;
        mod += u;
        break;
      }
      case 1:
        str = s[j];
        mod = m[j];
        break;
      case 2: {
        const std::u16string add = m[j];
        str += s[j];
        mod += add;
        break;
      }
      case 3: {
        const std::u16string ins = m[j];
        str.Insert(b, s[j]);
        mod.insert(b < 0 ? 0 : std::min(static_cast<size_t>(b), mod.size()), ins);
        break;
      }
      case 4:
        str.Remove(a, b);
        mod.erase(pa, nb);
        break;
      case 5: {
        const std::u16string with = m[j];
        str.ReplaceSubString(a, b, s[j]);
        mod.replace(pa, nb, with);
        break;
      }
      case 6: {
        const int n = static_cast<int>(y % 40);
        check(str.Resize(n, u'.') == 0);
        mod.resize(static_cast<size_t>(n), u'.');
        break;
      }
      case 7: {
        str.Strip();
        size_t first = 0, last = mod.size();
        while (first < last && isSpace(mod[first])) ++first;
        while (last > first && isSpace(mod[last - 1])) --last;
        mod = mod.substr(first, last - first);
        break;
      }
      case 8: {  // upper then lower: on this alphabet the same as lower alone
        str.ToUpper().ToLower();
        for (char16_t& u : mod) {
          if (u == u'B') u = u'b';
          if (u == u'\u00C9') u = u'\u00E9';
          if (u == u'\u03A3') u = u'\u03C3';
        }
        // Reachable capitals beyond the BMP, all lowering by 0x28: Deseret
        // U+10400..U+10427 and Osage U+104B0..U+104D3 (pairs D801 DC00..DC27
        // and D801 DCB0..DCD3).
        for (size_t k = 0; k + 1 < mod.size(); ++k) {
          const char16_t hi = mod[k], lo = mod[k + 1];
          if (hi < 0xD800 || hi > 0xDBFF || lo < 0xDC00 || lo > 0xDFFF) continue;
          if (hi == 0xD801 && (lo <= 0xDC27 || (lo >= 0xDCB0 && lo <= 0xDCD3)))
            mod[k + 1] = static_cast<char16_t>(lo + 0x28);
          ++k;
        }
        break;
      }
      case 9: {
        const std::u16string sub = mod.substr(pa, nb);
        check(str.SubString(a, b).ToU16StringView() == sub);
        break;
      }
      case 10: {
        const size_t first = mod.find(m[j], pa);
        check(str.SearchSubString(s[j], a) == (first == std::u16string::npos ? -1 : static_cast<int>(first)));
        const size_t last = mod.rfind(m[j], a < 0 ? std::u16string::npos : static_cast<size_t>(a));
        check(str.SearchSubString(s[j], a, true) == (last == std::u16string::npos ? -1 : static_cast<int>(last)));
        break;
      }
      case 11: {  // through the multi-byte form and back (UTF-8 code page; no NUL in the alphabet)
        if (!wellFormed(mod)) break;
        const std::string bytes = str.ConvertToChar();
        str = bytes.c_str();
        break;
      }
      case 12:
        str.Pack();
        break;
      case 13: {
        const std::u16string what = m[j];
        const std::u16string with(1, kAlphabet[y % kAlphabetSize]);
        const int count = str.ReplaceSubString(s[j], KELUnicodeString(std::u16string_view(with)));
        int expected = 0;
        if (!what.empty()) {
          std::u16string out;
          size_t from = 0;
          for (size_t f = mod.find(what); f != std::u16string::npos; f = mod.find(what, from)) {
            out += mod.substr(from, f - from) + with;
            from = f + what.size();
            ++expected;
          }
          if (expected > 0) mod = out + mod.substr(from);
        }
        check(count == expected);
        break;
      }
      case 14: {
        KELUnicodeString copy(str);
        copy.Insert(0, s[j]);  // a change to a copy never shows in the original
        break;
      }
      default:
        str.AppendCodePoint(0x10000u + y);
        mod += static_cast<char16_t>(0xD800);
        mod += static_cast<char16_t>(0xDC00 + y);
        break;
    }
    for (size_t k = 0; k < 3; ++k) {
      check(s[k].ToU16StringView() == m[k]);
      check(s[k].GetLengthInChar() == static_cast<int>(m[k].size()));
      check(s[k].IsNull() == m[k].empty());
      check(s[k].CompareNoCase(s[k]) == 0 && s[k] == KELUnicodeString(std::u16string_view(m[k])));
      check(s[k].ComputeHashKey() == KELUnicodeString(std::u16string_view(m[k])).ComputeHashKey());
    }
  }
  return 0;
}

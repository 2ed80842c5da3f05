// convert_text: what SystemTS's text layer does, on one text.
//
//   convert_text [FILE]
//
// Reads FILE (or a built-in multilingual sample), converts it between UTF-8,
// UTF-16 and UTF-32, shows that the V3 hash is one value across every form,
// says whether the input is valid UTF-8, and prints its base64.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "NUVSysConverter.h"
#include "NUVSysUCAlgorithm.h"

namespace {

const char kSample[] =
    "English: The quick brown fox jumps over the lazy dog.\n"
    "Fran\xC3\xA7" "ais : \xC3\x89" "t\xC3\xA9 br\xC3\xBBlant, c\xC5\x93ur l\xC3\xA9ger.\n"
    "Deutsch: Gr\xC3\xBC\xC3\x9F" "e aus K\xC3\xB6ln.\n"
    "\xCE\x95\xCE\xBB\xCE\xBB\xCE\xB7\xCE\xBD\xCE\xB9\xCE\xBA\xCE\xAC: \xCE\xBA\xCE\xB1\xCE\xBB\xCE\xB7\xCE\xBC\xCE\xAD\xCF\x81\xCE\xB1\n"
    "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E: \xE3\x81\x93\xE3\x82\x93\xE3\x81\xAB\xE3\x81\xA1\xE3\x81\xAF\xE4\xB8\x96\xE7\x95\x8C\n"
    "Emoji: \xF0\x9F\x98\x80 \xF0\x9F\x8C\x8D \xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD\n";

}  // namespace

int main(int argc, char** argv) {
  std::string text = kSample;
  if (argc > 1) {
    std::ifstream in(argv[1], std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "convert_text: cannot read %s\n", argv[1]);
      return 2;
    }
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  const char* begin = text.data();
  const char* end = begin + text.size();

  // UTF-8 -> UTF-16 -> UTF-32 -> UTF-8.
  std::vector<unsigned short> utf16(text.size() + 2);
  utf16.resize(static_cast<size_t>(NUVSysUCAlgorithm::unchecked::utf8to16(begin, end, utf16.data()) -
                                   utf16.data()));
  std::vector<unsigned int> utf32(utf16.size() + 1);
  utf32.resize(static_cast<size_t>(
      NUVSysUCAlgorithm::unchecked::utf16to32(utf16.data(), utf16.data() + utf16.size(), utf32.data()) -
      utf32.data()));
  std::string back(4 * utf32.size() + 4, '\0');
  back.resize(static_cast<size_t>(
      NUVSysUCAlgorithm::unchecked::utf32to8(utf32.data(), utf32.data() + utf32.size(), &back[0]) -
      back.data()));

  const char* probe = begin;
  const bool valid = NUVSysUCAlgorithm::IsUTF8(probe, text.size()) == 0;

  // The V3 hash of every form: one value. The UTF-32 form is hashed through
  // its UTF-16 encoding, the way the library defines the hash.
  std::vector<unsigned short> from32(2 * utf32.size() + 2);
  from32.resize(static_cast<size_t>(
      NUVSysUCAlgorithm::unchecked::utf32to16(utf32.data(), utf32.data() + utf32.size(), from32.data()) -
      from32.data()));
  const unsigned h8 = NUVSysUCAlgorithm::HashV3FromUTF8(begin, text.size(), 0);
  const unsigned h16 = NUVSysUCAlgorithm::HashV3FromUCS2(utf16.data(), utf16.size(), 0);
  const unsigned h32 = NUVSysUCAlgorithm::HashV3FromUCS2(from32.data(), from32.size(), 0);
  const unsigned hcp = NUVSysUCAlgorithm::HashV3FromMBCSOptimistic(begin, text.size(), 0, nullptr);

  char* b64 = nullptr;
  if (NUVSysConverter::ConvertToBase64(reinterpret_cast<const unsigned char*>(begin), text.size(), b64) != 0) {
    std::fprintf(stderr, "convert_text: base64 encoding failed\n");
    return 1;
  }
  unsigned char* decoded = nullptr;
  size_t decodedLen = 0;
  const bool b64RoundTrip = NUVSysConverter::ConvertFromBase64(b64, decoded, decodedLen) == 0 &&
                            std::string(reinterpret_cast<char*>(decoded), decodedLen) == text;
  delete[] decoded;

  if (argc <= 1) std::cout << "Input (built-in sample):\n" << text << '\n';
  std::cout << "UTF-8 bytes:        " << text.size() << '\n'
            << "UTF-16 units:       " << utf16.size() << '\n'
            << "UTF-32 code points: " << utf32.size() << '\n'
            << "Valid UTF-8:        " << (valid ? "yes" : "no (invalid bytes pass through as U+0080..U+00FF)") << '\n'
            << "Round trip to UTF-8 " << (back == text ? "gives the input back" : "differs (input was not valid UTF-8)") << '\n';
  std::printf("V3 hash:            0x%08X (UTF-8 0x%08X, UTF-16 0x%08X, UTF-32 0x%08X, code page 0x%08X)\n",
              h16, h8, h16, h32, hcp);
  const bool oneHash = h8 == h16 && h16 == h32 && h32 == hcp;
  std::cout << "One hash across forms: " << (oneHash ? "yes" : "NO") << '\n';
  const std::string encoded(b64);
  delete[] b64;
  std::cout << "Base64 (" << encoded.size() << " characters, decodes back: " << (b64RoundTrip ? "yes" : "NO")
            << "):\n";
  const size_t shown = encoded.size() > 760 ? 760 : encoded.size();
  for (size_t i = 0; i < shown; i += 76) std::cout << encoded.substr(i, 76) << '\n';
  if (shown < encoded.size()) std::cout << "... (" << encoded.size() - shown << " more)\n";
  return oneHash && b64RoundTrip ? 0 : 1;
}

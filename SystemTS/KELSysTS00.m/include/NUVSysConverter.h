// NUVSysConverter.h - base64 encoding and decoding of byte buffers (RFC 4648
// alphabet "A-Za-z0-9+/", '=' padding, no line breaks).
//
// Threads: stateless, callable from any thread.
#ifndef NUVSYSCONVERTER_H
#define NUVSYSCONVERTER_H

#include <cstddef>

#include "SystemTSCommon.h"

class SYSTEMTS_API NUVSysConverter {
 public:
  // Encodes `n` bytes as base64 text, NUL-terminated, 4 * ceil(n / 3)
  // characters long; zero bytes give the empty string.
  // Ownership: `text` is allocated with new[]; the caller releases it with
  // delete[].
  // Failure: E_FAIL when `data` is null or the text cannot be allocated, and
  // `text` is then null. Never throws.
  static int ConvertToBase64(const unsigned char* data, size_t n, char*& text);

  // Decodes NUL-terminated base64 text. Empty text gives 0 with `data` null
  // and `n` 0. Otherwise `data` receives 3 * (length / 4) bytes, of which `n`
  // count (the padding is left out).
  // Rejected with E_FAIL, `data` null and `n` 0: a null text; a length that is
  // not a multiple of 4; any byte outside the alphabet (bytes above 0x7F
  // included); '=' anywhere but as the last one or two characters of the last
  // group, or a '=' third character followed by anything but '='.
  // E_FAIL as well when the output cannot be allocated. Never throws.
  // The padding bits of the last group are not checked, and all three bytes of
  // a padded last group are stored: the bytes past `n` hold what the '='
  // characters decode to.
  // Ownership: `data` is allocated with new[]; the caller releases it with
  // delete[].
  static int ConvertFromBase64(const char* text, unsigned char*& data, size_t& n);
};

#endif  // NUVSYSCONVERTER_H

// ArgEnt.h - one entry of the named-argument table, and the table's hash and
// equality functions.
#ifndef SYSTEMTS_ARGENT_H
#define SYSTEMTS_ARGENT_H

#include "KELUnicodeString.h"

namespace systemts::detail {

class ArgEnt {
 public:
  static constexpr int kLookUp = -1;   // a key used only to look up
  static constexpr int kNoValue = 0;
  static constexpr int kValue = 1;

  // An owned entry: copies of `name` and of `value` (when not null), and the
  // value converted once to UTF-16.
  ArgEnt(const char* name, int kind, int added, const char* value);
  // A look-up key: `name` is borrowed and must outlive the key.
  explicit ArgEnt(const char* name) noexcept;
  virtual ~ArgEnt();
  ArgEnt(const ArgEnt&) = delete;
  ArgEnt& operator=(const ArgEnt&) = delete;

  // djb2 over the name's bytes taken as signed chars: h = h * 33 + c from
  // 5381, modulo 2^32. The empty name gives 5381, a null name 0.
  static unsigned int ComputeHashKey(const char* name) noexcept;
  // The stored hash of an entry (0 for null).
  static unsigned int Hash(void* entry) noexcept;
  // -1 when either entry or either name is null, 1 when the names are equal
  // byte for byte, else 0. The table takes any non-zero result as equal, so
  // callers never look up a null name.
  static int Compare(void* a, void* b) noexcept;

  // Fields in this order: name, kind, added, hash, value.
  char* name;        // owned, or borrowed for a look-up key
  int kind;          // kLookUp, kNoValue or kValue
  int added;         // 1 when added at run time, 0 when read from the command line
  unsigned int hash;
  char* value;       // owned, or null

  // The value read as UTF-8 (leniently), converted when the entry is made.
  // A look-up hands out a copy, which shares the text: one atomic increment
  // instead of a conversion and an allocation per look-up. Empty without a
  // value and in a look-up key.
  KELUnicodeString text;
};

}  // namespace systemts::detail

#endif  // SYSTEMTS_ARGENT_H

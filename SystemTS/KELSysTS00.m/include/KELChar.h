// KELChar.h - one byte of 8-bit text, as KELString hands it out.
//
// A small value type holding one `char`, 0 by default. KELString's
// operator[] returns it (a default KELChar, that is 0, for a position out of
// range), and KELString's constructor, operator+=, Resize and Strip take one.
//
// Comparison is that of the `char` it holds: KELChar converts implicitly to
// `char`, so `s[i] == 'x'`, `s[i] < s[j]` and `switch (s[i])` use the
// built-in comparisons (signed on this platform, as `char` is). There are
// deliberately no comparison operators of its own: with an implicit
// conversion both ways they would make `s[i] == 'x'` ambiguous.
//
// Threads: a plain value; no shared state. Nothing here throws.
#ifndef KELCHAR_H
#define KELCHAR_H

class KELChar {
 public:
  constexpr KELChar() noexcept : _c(0) {}
  // Implicit, so that a `char` can be passed where a KELChar is taken.
  constexpr KELChar(char c) noexcept : _c(c) {}

  constexpr operator char() const noexcept { return _c; }
  constexpr char GetChar() const noexcept { return _c; }

 private:
  char _c;
};

#endif  // KELCHAR_H

// NUVSysCodePage.h - conversion between a multi-byte code page (MBCS) and
// UTF-16.
//
// Each converter has one of three method pairs:
//   "UTF-8"                          the library's own UTF-8 transforms;
//   a name iconv can open            iconv, through NUVSysIConvTSWrap (each
//                                    thread uses its own descriptors);
//   null, "N/A", or a name iconv     identity: bytes widen to units, units
//   cannot open                      narrow to their low byte; the name is
//                                    then "Identity" and IsValid() is false.
// A name iconv cannot open is reported once on standard error ("ERROR:
// SUPPLANG_K2 does not contain a valid code set for code page: <name>.").
//
// Messages: a converter writes these on standard error by itself, always
// (no variable gates them), each flushed at once:
//   "ERROR: SUPPLANG_K2 does not contain a valid code set for code page:
//    <name>.\n" (one line)       a name iconv cannot open (see above);
//   "iconv EINVAL error: input buffer was truncated.\n"
//                                 MBCS to UTF-16 through iconv, the text ends
//                                 inside a character (it becomes 0x3F00);
//   "iconv errno is: <errno>\n"   MBCS to UTF-16 through iconv, iconv failed
//                                 for another reason than a refused
//                                 character (handled like one);
//   "ERROR: NUVSysCodePage::CanConvertMBCSToUTF16 - an overflow has
//    occurred!" (no newline)      a character gave more than one unit there.
// The iconv wrapper's own lines (NUVSysIConvTSWrap.h) and the per-thread
// locale's (NUVSysCLocale.h) are listed with them.
//
// Failure of the operating system: when iconv cannot open a pair (out of
// descriptors or memory), a converter being built becomes an identity
// converter as for an unknown name; a converter already built converts by
// identity on a thread where its descriptors cannot be opened, until they
// can (each call tries again).
//
// Replacements, kept exactly for compatibility:
// - MBCS to UTF-16 through iconv: a character iconv rejects becomes the unit
//   0x3F00 (the bytes 0x00 0x3F in UTF-16LE order, not '?' 0x003F), and the
//   conversion goes on after it. Its length is measured with mbrlen under the
//   converter's C locale (1 byte when the locale does not know it). In a
//   bounded call whose room is already used up, such a character is skipped
//   without its replacement.
// - UTF-16 to MBCS through iconv: a unit iconv rejects becomes '?'.
// - A single-byte code page iconv converts without state (ISO-8859-x, KOI8-x,
//   CP125x other than CP1255 and CP1258, ...) converts through tables filled from
//   iconv itself on first use (tens of microseconds, about 1 KiB, kept until
//   the process ends), with exactly the results above.
// - Code pages whose iconv conversion composes characters (CP1255, CP1258,
//   TCVN): iconv holds a final base letter back, waiting for a combining
//   mark, and the shift-state reset that ends every call drops it, so text
//   ending in such a letter loses it ("\xE0" alone gives no unit in CP1255).
//   Kept as it always was; convert such text in one piece with a final
//   character that composes with nothing (a space or a newline).
// - The UTF-8 methods are lenient: malformed bytes decode by arithmetic, as
//   the library's unchecked transforms do.
//
// Buffers: a bounded MBCS-to-UTF-16 call with capacity c may write c + 1
// units: size `dst` for c + 1 (a terminating 0 follows the UTF-8 and
// identity results). On a UTF-8 converter a capacity of 1 takes the bounded
// UTF-8 transform's rule below 2 units: when the rest of the text is one
// one-unit character it is converted, otherwise nothing is consumed and the
// result is 0 (dst[0] is then 0). The one-shot form writes up to srcLen + 2
// units: on a UTF-8 converter a four-byte lead cut off by the end of the
// text still decodes to a pair, two units from one byte, before the
// terminating 0. UTF-16 to MBCS writes
// up to 4 * n + 1 bytes (NUVGetMultiByteCharMaxSize() * n + 1 suffices for
// the process code page). Through iconv the MBCS-to-UTF-16 result is not
// terminated.
//
// Threads: a converter may be used from any number of threads at once;
// conversions take no lock. The environment converter follows changes of
// language (OnChangeNLSCore). A change (any _Reinitialize) publishes the new
// setup at once and whole: a conversion running at that moment finishes with
// the setup it started with, the next one uses the new setup. A name returned
// by GetCodePageName stays readable as long as its converter lives (for the
// environment converter, as long as the process). Memory: a converter keeps
// each setup it has had until it is destroyed, one per distinct code page and
// locale it was set to (setting it to one it had before reuses that one).
#ifndef NUVSYSCODEPAGE_H
#define NUVSYSCODEPAGE_H

#include <atomic>
#include <cstddef>
#include <cwchar>

#include "NUVSysIConvTSWrap.h"
#include "NUVSysNLSEnv.h"
#include "SystemTSCommon.h"

class NUVSysCodePage;
namespace systemts::detail {
struct CodePageState;
// The V3 hash of code-page text (NUVSysUCAlgorithm::HashV3FromMBCS), taken
// under one setup of the converter from the first byte to the last.
unsigned int hashCodePageText(const NUVSysCodePage& cp, const char* text, size_t n, unsigned int seed);
}  // namespace systemts::detail

class SYSTEMTS_API NUVSysCodePage {
 public:
  // An empty converter: it converts nothing (results 0) until _Reinitialize.
  NUVSysCodePage();
  // A converter for `codePage` (see the method pairs above).
  explicit NUVSysCodePage(const char* codePage);
  virtual ~NUVSysCodePage();
  NUVSysCodePage(const NUVSysCodePage&) = delete;
  NUVSysCodePage& operator=(const NUVSysCodePage&) = delete;

  // The process's converter for the code page of the national-language core
  // (NUVSysNLSEnv.h), made on first use under the global mutex. It lives
  // until the process ends (it is never destroyed, so that code running
  // during exit can still convert).
  static const NUVSysCodePage& GetEnvConverter();
  // Re-initialises the environment converter for a new language; registered
  // with NLSCoreRegisterCBOnChange.
  static void OnChangeNLSCore(const NUVSysNLSEnv& env);

  // One-shot: converts `srcLen` bytes into `dst` without a capacity limit
  // (see Buffers). Stores the units written through `dstLen` when non-null
  // and returns them; 0 for a null `src` or `dst`, a negative `srcLen` or an
  // empty converter.
  int ConvertMBCSToUTF16(const char* src, int srcLen, unsigned short* dst, int* dstLen) const;
  // Resumable: writes at most `dstCap` units plus a terminating 0, so `dst`
  // holds dstCap + 1 units (see Buffers); advances `src` and lowers `srcLen` by the bytes consumed, and
  // sets `src` to null once `srcLen` reaches 0. Returns the units written;
  // 0 when `dstCap` is 0 or an argument is null; (size_t)-1 when the UTF-8
  // transform refuses its arguments.
  size_t ConvertMBCSToUTF16(const char*& src, size_t& srcLen, unsigned short* dst, size_t dstCap) const;
  // Converts `n` units into `dst` and terminates it. Stores the bytes
  // written through `dstLen` when non-null (the UTF-8 method terminates and
  // stores only then) and returns them; 0 for null pointers or n < 0.
  int ConvertUTF16ToMBCS(const unsigned short* src, int n, char* dst, int* dstLen) const;

  // 0 when every character of the `len` bytes converts to one UTF-16 unit and
  // back to exactly its own bytes, -1 otherwise; 0 for a null text. Each
  // character is judged, the last as much as the first.
  // Warning, kept for compatibility: a '?' byte counts as convertible but the
  // scan does not move past it, so text holding '?' before its end never
  // returns. Do not pass such text.
  // On a UTF-8 converter a text of more than one character reports an
  // overflow ("ERROR: NUVSysCodePage::CanConvertMBCSToUTF16 - an overflow
  // has occurred!" on standard error) and gives -1, as it always has.
  int CanConvertMBCSToUTF16(const char* text, size_t len) const;
  // 0 when every unit other than '?' converts to MBCS and back unchanged,
  // -1 otherwise; 0 for a null text or n < 1.
  int CanConvertUTF16ToMBCS(const unsigned short* text, int n) const;

  // Decode the character at `p` (NUL-terminated text; nothing past its NUL is
  // read) and advance `p`. Results: UTF16 the units written to `out` (1 or 2;
  // `out` holds 2), UTF32 1, UTF8 the bytes written to `out` (1 to 4; not
  // terminated); 0 on failure. A NUL byte decodes to 0 and counts as one
  // character.
  int GetNextMultiByteCharAsUTF16(const char*& p, unsigned short* out) const;
  int GetNextMultiByteCharAsUTF32(const char*& p, unsigned int& out) const;
  int GetNextMultiByteCharAsUTF8(const char*& p, char* out) const;

  // False for an identity (or empty) converter.
  bool IsValid() const;
  // The code page name, "Identity", or null for an empty converter (and when
  // the copy of the name could not be allocated: the converter still works).
  const char* GetCodePageName() const { return _codePage; }

  // Sets the converter up for `codePage` and, when `localeEntry` is given,
  // associates the C locale of that language entry. Same name: no change.
  void _Reinitialize(const char* codePage, const char* localeEntry);
  // Registers both directions with NUVSysIConvTSWrap and checks that iconv
  // can open them. 1 for a UTF-8 converter, 0 on success, E_FAIL otherwise.
  // It does not change the converter (only _Reinitialize does).
  int _InitConvDesc(const char* codePage);
  // The associated C locale name, "C" when none.
  const char* _GetAssociatedCLocale() const;
  // Byte length of the character at `s` (reading at most `max` bytes) under
  // the C locale `localeName`, switched in for the calling thread only. 1 for
  // a null locale name and for an invalid or incomplete character.
  static size_t _mbrlen_s(const char* localeName, const char* s, size_t max, mbstate_t* state);

 private:
  std::atomic<const char*> _codePage;  // the current setup's name, "Identity", or null
  // The current setup, never changed once published; null for an empty
  // converter. Every setup this converter has had, newest first, hangs from
  // _setups (changed only under the library's reinitialisation lock).
  std::atomic<const systemts::detail::CodePageState*> _setup;
  systemts::detail::CodePageState* _setups;
  [[maybe_unused]] void* _reserved[5];  // keeps the size the class has always had

  static std::atomic<NUVSysCodePage*> _sCPConverter;

  friend unsigned int systemts::detail::hashCodePageText(const NUVSysCodePage&, const char*, size_t,
                                                          unsigned int);
};

#endif  // NUVSYSCODEPAGE_H

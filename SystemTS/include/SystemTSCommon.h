// SystemTSCommon.h - the pieces every module of SystemTS shares: the export
// macro that marks the public API, and the result codes.
//
// Results follow the HRESULT shape the library's callers already know: 0 is
// success, a negative 32-bit value is a failure. Functions of a C-style
// interface return 0 or -1 instead; each header says which form it uses.
#ifndef SYSTEMTS_COMMON_H
#define SYSTEMTS_COMMON_H

// Marks a class or function as part of the library's binary interface. The
// library is built with hidden visibility, so whatever lacks this mark stays
// private to libSystemTS.so.
#if defined(SYSTEMTS_BUILDING_LIBRARY)
#define SYSTEMTS_API __attribute__((visibility("default")))
#else
#define SYSTEMTS_API
#endif

// Marks a member of an exported class that stays private to the library
// (helpers the class's own code calls), so that it is not exported with the
// class.
#define SYSTEMTS_HIDDEN __attribute__((visibility("hidden")))

// Result codes. Guarded so that a caller that already has the usual
// definitions (same values) can include both.
#ifndef S_OK
#define S_OK 0
#endif
#ifndef E_FAIL
#define E_FAIL static_cast<int>(0x80004005u)  // general failure
#endif
#ifndef E_INVALIDARG
#define E_INVALIDARG static_cast<int>(0x80070057u)  // invalid argument
#endif
#define SYSTEMTS_E_NOT_FOUND static_cast<int>(0x80070002u)        // not found
#define SYSTEMTS_E_NO_MORE_ENTRIES static_cast<int>(0x80070012u)  // no more entries

// The library's one mapping from an errno value to a result: 0 and negative
// values pass through, a positive errno e becomes 0x80070000 | e.
inline int SystemTSResultFromErrno(int e) {
  return e < 1 ? e : static_cast<int>(0x80070000u | (static_cast<unsigned>(e) & 0xFFFFu));
}

#endif  // SYSTEMTS_COMMON_H

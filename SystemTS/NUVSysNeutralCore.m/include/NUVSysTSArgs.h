// NUVSysTSArgs.h - the process's own command line, read from the operating
// system, and the process-wide table of named arguments that any module may
// query, add to or remove from, from any thread.
//
// The table maps a name ("batch", "file") to an entry: a kind (0 without
// value, 1 with one), whether it was added at run time (added 1) or read from
// the command line (added 0), and a value kept as bytes and handed out as
// UTF-8 text. NUVSysTSSetArg builds it from an argument vector by fixed rules
// (below); NUVSysGetCmdLineArgs builds it from the process's own command line
// on its first successful read.
//
// Threads: one process-wide readers/writer lock guards the table. Any number
// of NUVSysTSGetArg calls run together; NUVSysTSSetArg, NUVSysTSAddArg and
// NUVSysTSResetArg run alone. The command line is read once, under a lock of
// its own, and cached for the life of the process.
//
// Result codes of the table: 0 success, E_FAIL (0x80004005) general failure,
// SYSTEMTS_E_NOT_FOUND (0x80070002) no such name. Names are compared byte for
// byte.
//
// Decisions of this implementation:
// - The table exists from the first call of NUVSysGetCmdLineArgs,
//   NUVSysTSSetArg, NUVSysTSAddArg or NUVSysTSResetArg. NUVSysTSGetArg does
//   not create it: before it exists every look-up gives E_FAIL. A host that
//   wants its command line in the table calls NUVSysGetCmdLineArgs once at
//   start-up.
// - The first read of the command line happens under a lock: threads that
//   race for it wait and all receive the one cached vector.
// - A null name is refused: NUVSysTSGetArg gives SYSTEMTS_E_NOT_FOUND,
//   NUVSysTSAddArg and NUVSysTSResetArg E_FAIL. Null entries of an argument
//   vector make no entry and never serve as a value.
// - Running out of memory while changing the table throws std::bad_alloc
//   with the lock released and no half-built entry left.
#ifndef NUVSYSTSARGS_H
#define NUVSYSTSARGS_H

#include "KELSysTSUnicodeString.h"
#include "KELUnicodeString.h"
#include "SystemTSCommon.h"

// The process's own arguments, read from "/proc/<pid>/cmdline" on the first
// call that succeeds and cached for the life of the process. Sets argc and
// argv and returns argc.
//
// Every argument comes through byte for byte: empty ones, ones holding
// newlines and bytes that are not UTF-8 alike. argv[argc] is null. A last
// piece of the file that is not NUL-terminated (a process that rewrote its
// own command line) is not counted.
//
// The first successful read also rebuilds the named-argument table from the
// vector (NUVSysTSSetArg), so that it reflects the real command line; later
// calls only return the cache.
//
// Failure: when the file cannot be opened or read, argc is 0, argv null,
// nothing is cached (a later call tries again), and the table is rebuilt
// empty.
// Ownership: the vector and its strings belong to the library and live until
// the process ends; never free or change them.
SYSTEMTS_API int NUVSysGetCmdLineArgs(int& argc, char**& argv);

// The same arguments as a new array of argc strings, each assigned from the
// argument's bytes as text in the process code page
// (KELUnicodeString::operator=(const char*)). Null, with argc 0, when there
// are no arguments or the array cannot be allocated.
// Ownership: the caller releases the array with delete[].
SYSTEMTS_API KELUnicodeString* NUVSysGetCmdLineArgs(int& argc);

// Rebuilds the table from argv[1] .. argv[argc-1] (argv[0], the program, is
// never an argument); entries added by NUVSysTSAddArg are dropped. Returns 0.
//
// Each argument at index i is taken by the first rule that matches; "next"
// means that i+1 < argc. Comparisons are of whole arguments unless the rule
// says prefix.
//   "-help" "-admin" "-batch" "/regserver" "/unregserver"
//       entry of the name without its "-" or "/", no value; i+1.
//   "-object" "-file" "-workbench" "-env" "-direnv" "-Url" "-Sli" "-Cas"
//   "-Ctx", with next
//       entry of the name without "-", value argv[i+1] (whatever it is); i+2.
//   "-e", with next
//       entry "e", value argv[i+1] followed by every further argument up to
//       the first that begins with "-" or "\", joined with one blank; i+2.
//       The joined words are then visited again and, beginning with neither
//       "-" nor "\", make no entry, unless another rule takes them (a joined
//       "/regserver" also makes its own entry).
//   "-maintenance", only when i is 2 and argc is 3
//       entry "maintenance" of kind 1 without value text; ends the walk.
//       Anywhere else it is taken by the general rule below (no value).
//   prefix "-render="
//       entry "render", value the text after "-render="; i+1.
//   "-name=value" or "--name=value"
//       entry of the text after "-" (or "--") up to the first "=", value the
//       text after that "="; i+1.
//   "-name" or "--name"
//       entry of the text after "-" (or "--"), no value; i+1 ("-" alone makes
//       the entry "").
//   anything else
//       no entry; i+1.
// A value-taking option that stands last falls through to the later rules:
// "-file" alone makes "file" without value.
// A name already in the table keeps its first entry: "-file a -file b" gives
// "file" = "a".
SYSTEMTS_API int NUVSysTSSetArg(int argc, char** argv);

// Looks `name` up. 0 with kind, added and, when the entry has a value, the
// value (its bytes read as UTF-8, leniently as KELUnicodeString::BuildFromUTF8
// does). SYSTEMTS_E_NOT_FOUND when the name is not in the table (or is null);
// E_FAIL when there is no table yet. kind, added and value are written only
// on success.
// Compatibility: an entry without value text (kind 0, or the kind-1
// "maintenance" entry) leaves `value` as it was; callers clear it first when
// they need to tell.
SYSTEMTS_API int NUVSysTSGetArg(char* name, int& kind, int& added, KELUnicodeString& value);
SYSTEMTS_API int NUVSysTSGetArg(char* name, int& kind, KELUnicodeString& value);
SYSTEMTS_API int NUVSysTSGetArg(char* name, int& kind, int& added, KELSysTSUnicodeString& value);
SYSTEMTS_API int NUVSysTSGetArg(char* name, int& kind, KELSysTSUnicodeString& value);

// Replaces any entry of `name` by a new one with added 1: kind 1 with the
// value (stored as UTF-8) when `value` is given, else kind 0. Creates the
// table when it does not exist. 0 on success; E_FAIL for a null name or when
// the table cannot take the entry.
SYSTEMTS_API int NUVSysTSAddArg(char* name, const KELUnicodeString* value);
SYSTEMTS_API int NUVSysTSAddArg(char* name, KELSysTSUnicodeString* value);

// Removes the entry of `name`. 0 when one was removed, E_FAIL when there was
// none (or the name is null). Creates the table when it does not exist.
SYSTEMTS_API int NUVSysTSResetArg(char* name);

// The same operations for names that are constant text. The exported
// functions take `char*`, as their existing callers pass it; these forward
// to them.
inline int NUVSysTSGetArg(const char* name, int& kind, int& added, KELUnicodeString& value) {
  return NUVSysTSGetArg(const_cast<char*>(name), kind, added, value);
}
inline int NUVSysTSGetArg(const char* name, int& kind, KELUnicodeString& value) {
  return NUVSysTSGetArg(const_cast<char*>(name), kind, value);
}
inline int NUVSysTSGetArg(const char* name, int& kind, int& added, KELSysTSUnicodeString& value) {
  return NUVSysTSGetArg(const_cast<char*>(name), kind, added, value);
}
inline int NUVSysTSGetArg(const char* name, int& kind, KELSysTSUnicodeString& value) {
  return NUVSysTSGetArg(const_cast<char*>(name), kind, value);
}
inline int NUVSysTSAddArg(const char* name, const KELUnicodeString* value) {
  return NUVSysTSAddArg(const_cast<char*>(name), value);
}
inline int NUVSysTSAddArg(const char* name, KELSysTSUnicodeString* value) {
  return NUVSysTSAddArg(const_cast<char*>(name), value);
}
inline int NUVSysTSResetArg(const char* name) { return NUVSysTSResetArg(const_cast<char*>(name)); }

#endif  // NUVSYSTSARGS_H

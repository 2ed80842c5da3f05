// NUVSysEnvironmentManager.h - the application's own variables, kept apart
// from the process environment, with ${NAME} expansion; the settings reader
// of the library (NUVGetEnvInt) and the install path.
//
// A manager holds three arrays of NAME=value lines (official, static,
// dynamic) that the application fills, a table of variables put at run time,
// and the tags (${NAME}) found in the lines, so that ExpandAllEnvironStrings
// can replace them once every array is filled. Every application context
// (NUVSysNeutralCoreApplication.h) owns one.
//
// Encoding: names and values are bytes in the process's native encoding; the
// manager converts nothing.
// Threads: a manager takes no lock. Fill and expand it on one thread before
// others read it; the application context's accessors put and read under the
// context's lock.
// Ownership: lines and values are the manager's own malloc copies. Pointers
// handed out by GetEnv, GetOfficialEnv and GetEnvInTable point into that
// storage: valid until the line is replaced (BuildEnvironString on its slot,
// BuildDynamicEnviron, ExpandAllEnvironStrings) or the name is put again,
// and at most as long as the manager.
// Failure: -1 or null as each member says. Nothing is logged on failure and
// nothing throws on bad input.
//
// Log lines go to the trace "LifeCycle" at information level (switch it on
// with KELTraceLevel=LifeCycle=info, NUVSysTrace.h):
//   registration  "l_pTag=='<tag>', ipStringAddr=='<line>'"
//   expansion     "l_pExpandableStr=='<tag>', l_pTagAsString=='<name>'"
//                 "\tl_pEnvSet='<value>'"
//                 "*l_pEnvLine=='<new line>'"
#ifndef NUVSYSENVIRONMENTMANAGER_H
#define NUVSYSENVIRONMENTMANAGER_H

#include <cstddef>

#include "KELUnicodeString.h"
#include "SystemTSCommon.h"

class NUVSysHashTable;
class NUVSysList;
class NUVSysTrace;

// The position record of an argument suite: four words, all 0.
struct NUVSysEnvironArgumentCursor {
  void* words[4];
};

// One argument vector recorded by the application (AddMain). Fields in
// order: the count; count owned copies plus a null terminator; the current
// and the first argument (both the first string); a position (-1); a further
// word (0); an owned cursor record of four zero words. Suites compare by the
// text of their current argument.
struct NUVSysEnvironArgumentSuite {
  int count;
  char** argv;
  char* current;
  char* first;
  int position;
  void* reserved;
  NUVSysEnvironArgumentCursor* cursor;
};

class SYSTEMTS_API NUVSysEnvironmentManager {
 public:
  // An empty manager: no arrays, an empty table of 8192 slots (collisions
  // allowed), empty lists and a handle on the trace "LifeCycle". Throws
  // std::bad_alloc, with what was built released, when memory runs out.
  NUVSysEnvironmentManager();
  // Releases the dynamic, static and official arrays with their lines, the
  // table, the trace handle, then the line-address, tag and suite lists.
  virtual ~NUVSysEnvironmentManager();

  NUVSysEnvironmentManager(const NUVSysEnvironmentManager&) = delete;
  NUVSysEnvironmentManager& operator=(const NUVSysEnvironmentManager&) = delete;

  // ---- the arrays: each n + 1 null slots, filled by the caller ----
  // Look-ups visit the lines up to the first null slot; releasing an array
  // frees the lines of all its n slots. The arrays are the manager's: fill
  // their slots through BuildEnvironString, never free them.

  // Releases the dynamic array and every line in it, then makes a new one.
  // 0, or -1 for n below 0 or when memory runs out (the array is then null).
  int BuildDynamicEnviron(int n);
  // Makes a new static (official) array. Compatibility: a previous array is
  // not released here, as it never was: its lines are no longer looked up,
  // but stay readable until the manager is destroyed, which releases them.
  int BuildStaticEnviron(int n);
  int BuildOfficialEnviron(int n);
  // The arrays, null until built. A slot of an array is what
  // BuildEnvironString takes: &GetDynamicEnviron()[i].
  char** GetDynamicEnviron() const { return _pDynamicEnv; }
  char** GetStaticEnviron() const { return _pStaticEnv; }
  char** GetOfficialEnviron() const { return _pOfficialEnv; }

  // Frees the line in *slot, stores a copy of `text` there and registers its
  // tags (BuildEnvironExpandableString). 0, or -1 for a null slot, when the
  // copy fails or when the registration fails; a null text leaves the slot
  // null and, as the registration of no line fails, gives -1.
  // Warning: a "${" with no "}" after it never returns (see
  // BuildEnvironExpandableString).
  int BuildEnvironString(char** slot, const char* text);
  // Wide text is not supported: frees the line in *slot, leaves it null and
  // returns -1, always.
  int BuildEnvironString(char** slot, const wchar_t* text, int length);
  // As BuildEnvironString, without registering tags (argument text).
  int BuildArgumentString(char** slot, const char* text);

  // Registers the tags of `line`: each "${" with the first "}" after it is a
  // tag; a copy of it joins the tag list and the line's address joins the
  // line-address list (once per tag), and the registration is logged. A tag
  // of 8193 bytes or more is cut to its first 8191 bytes; up to 8192 bytes it
  // is kept whole (tags above 8191 bytes are then never expanded). The scan
  // goes on at the "}". 0, or -1 for a null line or when memory runs out.
  // Compatibility, kept on purpose: a "${" with no "}" after it makes the
  // scan stay on it for ever (the call does not return). Pass only lines
  // that close every tag.
  int BuildEnvironExpandableString(const char* line);

  // ---- the table of variables put at run time ----

  // Adds (or replaces) name = value in the table. 0, or -1 without a table,
  // for a null name or value, or when memory runs out.
  int PutEnvInTable(const char* name, const char* value);
  // Replaces the value of a name already in the table: 0, or -1 when the
  // name is absent, the value null or there is no table.
  int ReplaceEnvInTable(const char* name, const char* value);
  // The value in the table, or null.
  const char* GetEnvInTable(const char* name);

  // ---- look-up ----

  // The value of `name`: the table, then the official, the static and the
  // dynamic array; null when none has it. Lines match by the one-array rule:
  // a line matches when it holds "=" and the text before its first "=" is
  // exactly `name` (bytes, case counts); the first match in an array wins. A
  // null or empty name gives null.
  const char* GetEnv(const char* name);
  // The value from the official array only, or null.
  const char* GetOfficialEnv(const char* name);

  // ---- expansion ----

  // Replaces every registered tag in every registered line, once:
  // - The registered line addresses are taken as a snapshot, in list order.
  // - For each tag in the tag list, in order: tags shorter than 3 or longer
  //   than 8191 bytes are skipped. The name between "${" and "}" is looked
  //   up with GetEnv; an unset name leaves the tag in the lines as written.
  //   Otherwise each snapshot line that still stands in an array (official,
  //   static, dynamic, in this order) is replaced by a new line with every
  //   occurrence of the tag replaced by the value
  //   (NUVSysEnvironStringReplaceA), the snapshot follows the new line and
  //   the old one is freed.
  // So a later tag applies to lines already expanded by earlier ones, text a
  // value brings in is not scanned again for the same tag, and a value that
  // holds its own tag is inserted once. The registered lists do not change.
  // A snapshot entry whose line no longer stands in any array (a line with
  // two tags is registered twice; once replaced, the second entry names a
  // freed line) is skipped without being read.
  // Returns 0 (also when nothing is registered); -1 when memory runs out
  // (lines replaced so far stay replaced).
  int ExpandAllEnvironStrings();

  // ---- argument suites ----

  // Appends a suite holding copies of argv[0 .. argc-1]. 0, or -1 when argv
  // (or one of its strings) is null, argc is below 1 or memory runs out.
  int AddMain(char** argv, int argc);
  // A null line removes every suite and gives 0. Otherwise splits the line
  // (NUVSysEnvironBuildArgumentFromCommandLine) and appends the suite: 0, or
  // -1 when splitting or appending fails.
  int AddMain(const char* line);
  // The first suite (moving the walk there), then the next in the order
  // added; null at the end. The suite belongs to the manager.
  const NUVSysEnvironArgumentSuite* GetMainFirst();
  const NUVSysEnvironArgumentSuite* GetMainNext();
  // Makes a vector of n + 1 null pointers into *out for the caller to fill
  // with malloc strings (released with NUVSysEnvrionReleaseBufferOfStringA).
  // 0, or -1 for a null out, n below 1 or when memory runs out.
  int BuildArgumentArrayA(int n, char*** out);

 private:
  SYSTEMTS_HIDDEN int retireArray(char** array);

  char** _pDynamicEnv;
  char** _pStaticEnv;
  char** _pOfficialEnv;
  NUVSysHashTable* _pEnvTable;
  // Cleared at construction and destruction. Holds the arrays that
  // BuildStaticEnviron and BuildOfficialEnviron replaced, released with the
  // manager.
  void* _pvRetired;
  NUVSysList* _pArgumentSuites;
  NUVSysList* _pExpandableTags;
  NUVSysList* _pExpandableAddrs;
  NUVSysTrace* _pTrace;
};

// ---- free functions of the environment ----

// Reads a setting: the process environment (getenv) first, then the
// application's variables (NUVSysNeutralCoreApplicationGetEnvironmentVariableA:
// the current context's manager, then the main context's), then, only for the
// name "KELInstallPath", NUVGetMainInstallPath read as UTF-8. 1 when a value
// was found (stored in *out when out is not null), else 0 with *out
// untouched; 0 for a null name.
// Values from the environment and the application are assigned with
// KELUnicodeString::operator=(const char*) (process code page); the
// application's value is copied under the context's lock, so a concurrent put
// of the same name cannot free it under the reader.
// Note: the install path counts as found even when empty (an install root of
// "/" cut down to nothing).
// Threads: any thread.
SYSTEMTS_API int NUVGetEnvInt(const char* name, KELUnicodeString* out);

// getenv only: 1 with the value in out, else 0 with out untouched (0 for a
// null name).
SYSTEMTS_API int _NUVGetEnvironmentVariableFromOS(const char* name, KELUnicodeString& out);

// The install root of the program, computed once from its first argument
// (NUVSysGetCmdLineArgs) and cached for the process (never freed, never
// null):
// - no "/" in it: the first readable file <entry>/<program> along "PATH"
//   (its first 4095 bytes; empty entries skipped); none: empty;
// - relative with a "/": the current directory, "/", the program;
// - absolute: the program (its first 4095 bytes).
// Then the last three components are cut (each cut ends the text at its last
// "/"; cutting stops when none is left), so /opt/a/bin/x/prog gives /opt/a.
// Text that is not UTF-8 is converted from the process code page.
// Decisions: no arguments gives ""; when the current directory cannot be
// read, a relative program is cut as it stands.
// Threads: any thread; the first callers may race to compute it, one result
// is kept.
SYSTEMTS_API const char* NUVGetMainInstallPath();

// Compatibility: always -1, writes nothing; callers treat it as "not set".
SYSTEMTS_API int NUVSysGetEnvA(size_t* needed, char* buffer, size_t size, const char* name);
// Compatibility: always null.
SYSTEMTS_API const char* NUVSysGetOfficialEnvA(const char* name);

// Replaces every occurrence of `search` in `string`, left to right, by
// `replacement`; the scan resumes after each inserted replacement, so text
// it brings in is not scanned again. Each replacement allocates a new string
// (malloc) and frees the previous one, the string passed in included.
// Result: the final string (the caller frees it); `string` itself when an
// argument is null, `search` is empty or nothing matches. When memory runs
// out, the string as replaced so far (nothing is lost).
SYSTEMTS_API char* NUVSysEnvironStringReplaceA(char* string, const char* search, const char* replacement);

#endif  // NUVSYSENVIRONMENTMANAGER_H

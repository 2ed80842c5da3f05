// NUVSysPath.h - the library's file-system path value: relative and absolute
// paths, web addresses and logical names, built from UTF-8, UTF-16 or a
// Unicode string; joining, extensions, splitting, status questions, changes
// to the file system and directory iteration.
//
// A NUVSysPath owns one NUVSysPathImpl (null for an empty path: IsValid is
// false then). Copies copy the implementation; a move takes it over and
// leaves the source empty. Types, checks and cleaning: NUVSysPathImpl.h.
//
// Results: 0 for success, E_FAIL (0x80004005) for bad or missing input, and
// for failed system calls the errno converted by NUVConvertError(errno, 7),
// which is SystemTSResultFromErrno (0x80070000 | errno). Nothing throws. A
// path that failed to build keeps only the invalid bit and answers every
// question with a failure or false.
//
// Names: operations spelled with a capital letter take and give
// KELUnicodeString; the lower-case forms take KELSysTSUnicodeString.
//
// Status: the path keeps the stat64 record of its last look at the file
// system. The status questions take `refresh`: 0 answers from the cached
// record when there is one, anything else looks again. Every operation that
// changes the path or the file it names clears the cache.
//
// Logical names: "\x01\x02\NAME/rest" names the directory held by the
// application variable NAME (read with NUVGetEnvInt: the process environment,
// then the application's variables); the file-system operations use NAME's
// value joined with rest. When NAME is not set the path still builds, but has
// no translated name and every file-system operation on it fails (E_FAIL, or
// false).
//
// Web addresses: no network is used. Initialize (and so CanRead) succeeds
// when, after "http://" or "https://", the authority (up to the first "/",
// "?" or "#") is not empty, holds an optional "user@" part, then a host (a
// name of letters, digits and "-._!$&'()*+,;=" or a bracketed "[...]"
// literal) that is not empty, then an optional ":port" of 1 to 5 digits no
// greater than 65535; and every "%" in the whole address starts a "%XX"
// hexadecimal escape. CanWrite is always false for web addresses.
//
// Threads: one path per thread without outside locking. The well-known
// directory caches and the "NUVSysPath" trace are shared and filled once
// with a compare-and-swap.
#ifndef NUVSYSPATH_H
#define NUVSYSPATH_H

#include <sys/stat.h>

#include <cstdint>
#include <ctime>

#include "KELSysTSUnicodeString.h"
#include "KELUnicodeString.h"
#include "SystemTSCommon.h"

class NUVSysPathImpl;
class NUVSysPathFilter;
class NUVSysDirectoryIterator;

class SYSTEMTS_API NUVSysPath {
 public:
  NUVSysPath() noexcept = default;
  // Build as Set does; a refused text leaves a path with only the invalid bit.
  explicit NUVSysPath(const char* utf8);
  explicit NUVSysPath(const unsigned short* utf16);
  explicit NUVSysPath(const KELUnicodeString& text);
  explicit NUVSysPath(KELSysTSUnicodeString& text);
  NUVSysPath(const NUVSysPath& other);
  NUVSysPath(NUVSysPath&& other) noexcept;
  NUVSysPath& operator=(const NUVSysPath& other);
  NUVSysPath& operator=(NUVSysPath&& other) noexcept;
  ~NUVSysPath();

  // Build the path: 0, or E_FAIL for a null, empty or refused text.
  int Set(const char* utf8);
  int Set(const unsigned short* utf16);
  int Set(const KELUnicodeString& text);
  int Set(KELSysTSUnicodeString& text);

  bool IsRelative() const;
  bool IsAbsolute() const;
  // The flags word (NUVSysPathImpl.h); 0 for an empty path.
  uint32_t getType() const;
  uint32_t GetTypeMask() const;
  // Built and not invalid.
  bool IsValid() const;

  // Byte equality of the UTF-8 forms; two empty paths are equal.
  bool operator==(const NUVSysPath& other) const;
  bool operator==(const char* utf8) const;
  bool operator==(const unsigned short* utf16) const;
  bool operator!=(const NUVSysPath& other) const { return !(*this == other); }

  // Joins one component: E_FAIL when this path is not built or the
  // component is 1025 bytes or more. "." changes nothing; one trailing "/"
  // of the component is dropped and a leading "/" skipped ("a" + "/b/" gives
  // "a/b"); a "/" goes between unless the path ends with one; then the result
  // is cleaned (NUVSysPathImpl::CleanAndCanonicalize). A join is refused
  // (E_FAIL, path unchanged) when the cleaned result is too long or would
  // read as another kind of path ("x" + "../http://h" stays relative text
  // "http:/h", but "x" + "../\x01\x02\\N" would become a logical name).
  int Append(const NUVSysPath& component);
  int Append(const KELUnicodeString& component);
  int Append(const unsigned short* component);
  int Append(const char* component);
  int append(KELSysTSUnicodeString& component);
  // A copy of this path with `component` joined; *result (when not null)
  // gets Append's result.
  NUVSysPath Add(const KELUnicodeString& component, int* result = nullptr) const;

  // The text after the last "." of the last component (without the ".").
  // E_FAIL when there is none or nothing follows it. For a path other than a
  // relative one, a text without "/" has no extension.
  int GetExtension(KELUnicodeString& extension) const;
  int getExtension(KELSysTSUnicodeString& extension) const;
  // Adds "." (unless `extension` begins with one) and `extension`. E_FAIL
  // when not built or the path ends with "/".
  int AddExtension(const KELUnicodeString& extension);
  int addExtension(KELSysTSUnicodeString& extension);
  // Removes the last extension. E_FAIL when there is none, and for names
  // that only begin with a "." (".profile" keeps its name) and "..".
  int RemExtension();
  int removeExtension();
  // Removes `extension` (with or without its ".") from the end of the path;
  // E_FAIL when the path does not end with it.
  int RemExtension(const KELUnicodeString& extension);
  int removeExtension(KELSysTSUnicodeString& extension);

  // Splits off the last component. 0: parent is the text before the last
  // "/" ("/" for "/name"), name the text after it. 1: there is no "/": name
  // is the whole path and parent is left as it was. E_FAIL: not built.
  int split(NUVSysPath& parent, KELUnicodeString& name) const;
  int split(NUVSysPath& parent, KELSysTSUnicodeString& name) const;
  // As above, with the name split again at its last "." into base and
  // extension (extension empty when the name has none).
  int split(NUVSysPath& parent, KELUnicodeString& base, KELUnicodeString& extension) const;
  int split(NUVSysPath& parent, KELSysTSUnicodeString& base, KELSysTSUnicodeString& extension) const;
  // The parent path (empty when there is none); the last component.
  NUVSysPath GetParent(int* result = nullptr) const;
  KELUnicodeString GetName(int* result = nullptr) const;

  // Times in seconds since the epoch; SetTimes uses utime.
  int GetTimes(time_t& access, time_t& modification) const;
  int SetTimes(time_t access, time_t modification);

  // Status; `refresh` 0 answers from the cache when it is valid.
  int Stat(struct stat64& status, int refresh = 0) const;
  bool CanRead(int refresh = 0) const;
  bool CanWrite(int refresh = 0) const;
  bool IsFile(int refresh = 0) const;
  bool IsDirectory(int refresh = 0) const;
  bool Exists(int refresh = 0) const;

  // Makes the directory and any missing parents (mode 0777 less the umask);
  // 0 also when it exists already as a directory.
  int MakeDir();
  // Removes a file (unlink), or an empty directory; with `recursive`
  // non-zero, a directory and everything under it. A symbolic link is
  // removed as a link, never followed, so nothing outside the tree is
  // touched. Stops at the first failure and returns it.
  int Remove(int recursive = 0);
  int Chmod(int mode);
  // Renames to `destination` (rename(2): same file system only).
  int Move(const NUVSysPath& destination);

  // Starts `iterator` on this directory (NUVSysDirectoryIterator.h gives
  // the results). `filter` is borrowed and must outlive the walk.
  int GetDirectoryIterator(NUVSysDirectoryIterator& iterator, NUVSysPathFilter* filter = nullptr) const;
  NUVSysDirectoryIterator Begin(int* result = nullptr, NUVSysPathFilter* filter = nullptr) const;
  NUVSysDirectoryIterator End() const;

  KELUnicodeString GetAsString() const;
  void getAsString(KELSysTSUnicodeString& text) const;
  KELUnicodeString ToString(int* result = nullptr) const;
  // The UTF-8 bytes, NUL-terminated; "" for an empty path. Valid until the
  // path changes.
  const char* GetUTF8() const;

  // Writes "<label> : Path is <path>" to the trace "NUVSysPath" at `level`
  // (1 error .. 4 debug).
  void PrintInTrace(const char* label, int level = 3) const;

  // $HOME, and "/tmp" (NUVSysPathImplGet...DirectoryPathA); E_FAIL when
  // not known.
  static int getHomeDirectory(NUVSysPath& result);
  static int getTempDirectory(NUVSysPath& result);
  // A new name directory/prefix_XXXXXX made unique with mktemp (directory
  // "/tmp" when null; the prefix only when directory + prefix fit within 255
  // bytes). Kept in this form for its callers; the name can be taken by
  // another process before it is opened: new code uses CreateTempFile.
  static int GetTempFilePath(NUVSysPath& result, const char* prefix = nullptr,
                             const NUVSysPath* directory = nullptr);
  // Creates and opens a new file directory/prefix_XXXXXX at once (mkstemp,
  // mode 0600, O_RDWR); `result` gets its name and `fd` the open descriptor,
  // which the caller closes. -1 in `fd` on failure.
  static int CreateTempFile(NUVSysPath& result, int& fd, const char* prefix = nullptr,
                            const NUVSysPath* directory = nullptr);

  NUVSysPathImpl* GetImpl() const { return _impl; }

 private:
  SYSTEMTS_HIDDEN NUVSysPathImpl* ensure();
  NUVSysPathImpl* _impl = nullptr;
};

SYSTEMTS_API bool operator==(const char* utf8, const NUVSysPath& path);
SYSTEMTS_API bool operator==(const unsigned short* utf16, const NUVSysPath& path);

// Well-known directories as paths: 0 or E_FAIL when not known.
SYSTEMTS_API int NUVSysPathHome(NUVSysPath& result);
SYSTEMTS_API int NUVSysPathDocument(NUVSysPath& result);
SYSTEMTS_API int NUVSysPathTemporary(NUVSysPath& result);
// The last component of `path` into `name`: 0, 1 (no "/"), or E_FAIL.
SYSTEMTS_API int NUVSysPathBaseName(const NUVSysPath& path, KELUnicodeString& name);

// Process-wide cached byte strings, filled once on first call (compare and
// swap; the loser frees its copy). They live until the process ends; callers
// must not free them.
//   Temporary: "/tmp" in the environment's code page.
//   Resource:  the first ":"-separated element of $KELInstallPath, or null.
//   Home, Document: copies of $HOME (two caches), or null.
SYSTEMTS_API const char* NUVSysPathImplGetHomeDirectoryPathA();
SYSTEMTS_API const char* NUVSysPathImplGetTemporaryDirectoryPathA();
SYSTEMTS_API const char* NUVSysPathImplGetResourceDirectoryPathA();
SYSTEMTS_API const char* NUVSysPathImplGetDocumentDirectoryPathA();
// Frees *slot (malloc'd or null), stores strdup(path) (null path: null) and
// removes trailing "/" bytes when the last "/" is the final byte, keeping at
// least the first byte. 0, or -1 for a null slot or no memory.
SYSTEMTS_API int NUVSysPathImplSetDirectoryPathA(char** slot, const char* path);

// Copies `length` units of `source` (-1: up to its 0) into `target`,
// writing every run of "\" as one "\", terminates it, and sets `length` to
// the units written (terminator not counted). `target` has room for the
// source's units plus one. -1 for null pointers, else 0. No path operation
// uses it.
SYSTEMTS_API int StripMultileBackSlash(unsigned short* target, const unsigned short* source, int& length);

// errno to result: with category 7, SystemTSResultFromErrno(e) (0x80070000 |
// e); any other category c in 0..0x7FF gives 0x80000000 | c << 16 | e. 0 and
// negative values pass through.
SYSTEMTS_API int NUVConvertError(int error, int category = 7);

#endif  // NUVSYSPATH_H

// NUVSysPathImpl.h - the implementation behind NUVSysPath: the path as UTF-8
// bytes, its type, and the cached status record.
//
// Callers use NUVSysPath; this class is public only because the directory
// iterator and the path share it, and because a few of its answers
// (GetTypeFromMask, ToString_NoExtendedLengthPrefix) are asked for by name.
//
// Types (the flags word, also the type mask NUVSysPath::GetTypeMask gives):
//   kInvalid  1    set while building, left set alone when building fails
//   kAbsolute 2    begins with "/"                         (prefix 1)
//   kRelative 4    anything else                           (prefix 0)
//   kHttp     32   begins with "http://"                   (prefix 7)
//   kHttps    64   begins with "https://"                  (prefix 8)
//   kLogical  128  begins with the bytes 0x01 0x02 '\'     (prefix 3)
//   kAppended 256  cleared by append
// Detection takes the first of: logical name, "http://", "https://", "/",
// relative.
//
// Checks after detection: a path no longer than its prefix fails unless it
// is absolute ("/" alone is a path, "http://" alone is not); a path of 1025
// bytes or more fails, except web addresses, which are limited only by the
// 16-bit length field (65535 bytes); after a web prefix every byte must lie
// in 0x20..0x7D.
// Compatibility: the upper bound 0x7D refuses "~" (0x7E) in web addresses,
// as it always has; addresses holding "~" must be written "%7E".
//
// Building drops one final "/" when the path is longer than its prefix; it
// does not otherwise clean the text ("a//b" stays so). Joining a component
// (append) cleans the whole result with CleanAndCanonicalize.
//
// Threads: one object per thread (no locking inside).
#ifndef NUVSYSPATHIMPL_H
#define NUVSYSPATHIMPL_H

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "KELUnicodeString.h"
#include "SystemTSCommon.h"

// The data of one path, in this order.
struct NUVSysPathImplInternalData {
  char* path = nullptr;            // UTF-8, NUL-terminated (malloc); null when not built
  char* translatedName = nullptr;  // resolved logical name (malloc), logical names only
  struct stat64 statCache {};      // status of the path when statValid
  bool statValid = false;          // cleared by every changing operation
  uint32_t flags = 0;              // type bits (above)
  uint16_t length = 0;             // bytes of path
  uint16_t prefixLength = 0;       // bytes of the type's prefix
  uint32_t capacity = 0;           // bytes allocated for path (terminator included)
};

class SYSTEMTS_API NUVSysPathImpl {
 public:
  enum : uint32_t {
    kInvalid = 1,
    kAbsolute = 2,
    kRelative = 4,
    kHttp = 32,
    kHttps = 64,
    kLogical = 128,
    kAppended = 256,
  };
  // Longest non-web path plus one: paths of this many bytes or more fail.
  static constexpr size_t kMaxPath = 1025;

  NUVSysPathImpl() noexcept = default;
  NUVSysPathImpl(const NUVSysPathImpl& other);
  NUVSysPathImpl& operator=(const NUVSysPathImpl& other);
  virtual ~NUVSysPathImpl();

  // Builders: 0, or E_FAIL for null, empty or refused text (then only the
  // invalid bit stays set and "BuildFromUTF8 Failed" is traced). `n` -1
  // means NUL-terminated.
  int BuildFromUTF8(const char* utf8, long n = -1);
  int BuildFromWCHAR(const unsigned short* utf16);
  int BuildFromString(const KELUnicodeString& text);

  // Type detection and checks on data().path (see above); 0 or E_FAIL.
  int InitPathType();
  int _CheckPath();

  // Joins one UTF-8 component (see NUVSysPath::Append); 0 or E_FAIL.
  int append(const char* component, long n = -1);
  // Cleans the text lexically, never touching the file system: runs of "/"
  // become one, "." segments go, "name/.." folds away when name is not "..",
  // ".." never climbs above the root of an absolute path (it is dropped
  // there), a trailing "/" goes (not from "/" itself), and a relative path
  // that cleans to nothing becomes ".". This agrees with Python's
  // posixpath.normpath except that a leading "//" becomes "/". Web addresses
  // are cleaned only after their authority ("http://h//a/../b" gives
  // "http://h/b"); a logical name only after its NAME. 0 or E_FAIL.
  int CleanAndCanonicalize();

  int getExtension(KELUnicodeString& extension) const;
  int addExtension(const char* extension);
  int removeExtension();
  int removeExtension(const char* extension);
  // 0 with a "/" found, 1 without (name is then the whole path and parent
  // untouched), E_FAIL when not built.
  int split(NUVSysPathImpl* parent, KELUnicodeString* name) const;

  // Resolves a logical name into translatedName (NUVSysPath.h says how).
  int TranslateDLName();
  // Checks a web address's form (NUVSysPath.h says what); 0 or E_FAIL.
  int Initialize() const;

  // The text the file system is asked about: the translated name of a
  // logical name, else the path. Null when not built.
  const char* fsPath() const;
  // Refreshes the status cache when `refresh` or when it is not valid.
  int refreshStat(int refresh);

  bool canRead(int refresh);
  bool canWrite(int refresh);
  bool isFile(int refresh);
  bool isDirectory(int refresh);
  bool exists(int refresh);
  int removeFile();
  int removeDirectory(int recursive);
  int createDirectory();

  static uint32_t GetTypeFromMask(uint32_t mask) { return mask; }
  // The path as a string; empty for an empty or unbuilt path.
  KELUnicodeString ToString_NoExtendedLengthPrefix() const;
  void printInTrace(const char* label, int level) const;

  const NUVSysPathImplInternalData& data() const { return _data; }
  NUVSysPathImplInternalData& data() { return _data; }
  // Replaces the text with `n` bytes and then `m` more (no checks); used by
  // the directory iterator to write an entry's name after its directory.
  SYSTEMTS_HIDDEN bool assignRaw(const char* bytes, size_t n, const char* more, size_t m, uint32_t flags,
                                 uint16_t prefix);
  SYSTEMTS_HIDDEN void reset();

 private:
  SYSTEMTS_HIDDEN bool reserve(size_t bytes);
  NUVSysPathImplInternalData _data;
};

#endif  // NUVSYSPATHIMPL_H

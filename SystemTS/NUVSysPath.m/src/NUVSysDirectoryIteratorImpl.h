// NUVSysDirectoryIteratorImpl.h - the state of one directory walk.
#ifndef NUVSYSDIRECTORYITERATORIMPL_H
#define NUVSYSDIRECTORYITERATORIMPL_H

#include <dirent.h>

#include <string>

#include "NUVSysPath.h"
#include "NUVSysPathImpl.h"

class NUVSysPathFilter;

class NUVSysDirectoryIteratorImpl {
 public:
  enum State { kPositioned = 0, kAtEnd = 1, kFailed = -1 };

  NUVSysDirectoryIteratorImpl() = default;
  NUVSysDirectoryIteratorImpl(const NUVSysDirectoryIteratorImpl& other);
  NUVSysDirectoryIteratorImpl& operator=(const NUVSysDirectoryIteratorImpl& other);
  ~NUVSysDirectoryIteratorImpl();

  int Init(NUVSysPathImpl* directory, NUVSysPathFilter* filter);
  int next(bool skipping = false);
  void Close();

  // In this order.
  DIR* _stream = nullptr;                 // open stream, or null
  bool _patternFlag = false;              // the filter's pattern is not "*.*"
  NUVSysPathImpl* _directory = nullptr;   // borrowed
  NUVSysPathFilter* _filter = nullptr;    // borrowed, or null
  struct dirent* _entry = nullptr;        // current readdir record
  NUVSysPath _current;                    // directory joined with the entry's name
  int _state = kAtEnd;

  // Derived once by Init.
  std::string _pattern;        // the filter's pattern, UTF-8
  bool _callAccept = false;    // the filter overrides accept
  bool _fastJoin = false;      // entries are joined by writing after _prefix
  std::string _prefix;         // cleaned directory text and "/" ("" for ".")
  std::string _name;           // current entry's name, kept past the stream

 private:
  bool buildCurrent(const char* name);
};

#endif  // NUVSYSDIRECTORYITERATORIMPL_H

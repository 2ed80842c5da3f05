// NUVSysIConvTSWrap.h - iconv conversion descriptors shared safely between
// threads.
//
// A conversion pair (from-code, to-code) is registered once, process-wide,
// and named by a handle (IConvDesc_t): the even value for the direction as
// registered, the following odd value for the reverse. Registering never
// opens anything. Each thread opens its own two iconv_t descriptors for a pair
// on first use and keeps them in a thread-local list (most recently used
// first), so conversions take no lock; only the registry of names is under a
// mutex.
//
// Every descriptor ever opened is also kept in one process-wide queue so that
// sDeinitIConvTS can close them all at shut-down. A thread's descriptors are
// closed when the thread ends; their small records stay in the queue until
// sDeinitIConvTS frees them. After sDeinitIConvTS, Open fails and every
// lookup gives (iconv_t)-1, so converters fall back to their identity
// methods.
//
// Messages: the wrap writes only while the environment variable "ADL_ODT_IN"
// is set (read once, on the first message), each line flushed at once:
//   standard error:
//     "[NUVSysIConvTSWrap] The input IConvDesc_t handle is invalid.\n"
//         GetIConvDesc of a handle that was never registered;
//     "[NUVSysIConvTSWrap] failed to initialize converters for conversion
//      <from> <-> <to>\n" (one line)
//         iconv could not open the pair on the calling thread;
//   standard output:
//     "[NUVSysIConvTSWrap] WARNING: from this point, conversions are no
//      longer supported.\n" (one line)
//         sDeinitIConvTS, when descriptors were in use;
//     "[NUVSysIConvTSWrap] INFO: session is ending. Support for MBCS has
//      been dropped in a earlier stage\n." (one line, the period after the
//      newline as it always was)
//         the first GetIConvDesc after sDeinitIConvTS.
//
// Threads: Open and GetIConvDesc from any thread. sDeinitIConvTS is for
// process shut-down, when no other thread converts any more.
#ifndef NUVSYSICONVTSWRAP_H
#define NUVSYSICONVTSWRAP_H

#include <iconv.h>

#include "SystemTSCommon.h"

typedef unsigned int IConvDesc_t;

class SYSTEMTS_API NUVSysIConvTSWrap {
 public:
  // The handle of the pair converting from `fromCode` to `toCode`: the
  // registered one, the reverse of a registered one (its handle + 1), or a
  // new registration. Returns 0, or E_FAIL (handle untouched) when a name is
  // null, the wrap has been torn down, or memory runs out.
  static int Open(const char* toCode, const char* fromCode, IConvDesc_t& desc);
  // The calling thread's descriptor for `desc`, opened on first use; the
  // caller must not close it. (iconv_t)-1 for an unknown handle, a pair
  // iconv does not know (EINVAL from iconv_open: remembered, later calls
  // fail fast), after sDeinitIConvTS, and while the pair cannot be opened
  // for a passing reason (out of descriptors or memory): then every later
  // call on that thread tries again, and gets the descriptor once the
  // process has room.
  static iconv_t GetIConvDesc(IConvDesc_t desc);
  // Creates the registry's mutex and the descriptor queue if absent (the
  // first Open does this). The argument is unused.
  static void sInitIConvTS(void* unused);
  // Tears everything down: closes every descriptor of every thread, frees
  // the registry. The argument is unused. Shut-down only.
  static void sDeinitIConvTS(int unused);
};

#endif  // NUVSYSICONVTSWRAP_H

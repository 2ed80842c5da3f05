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
// Messages: with the environment variable "ADL_ODT_IN" set (read once), the
// wrap reports invalid handles and code pages iconv cannot open on standard
// error, and the two shut-down notices on standard output.
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
  // iconv cannot open (remembered: later calls fail fast), or after
  // sDeinitIConvTS.
  static iconv_t GetIConvDesc(IConvDesc_t desc);
  // Creates the registry's mutex and the descriptor queue if absent (the
  // first Open does this). The argument is unused.
  static void sInitIConvTS(void* unused);
  // Tears everything down: closes every descriptor of every thread, frees
  // the registry. The argument is unused. Shut-down only.
  static void sDeinitIConvTS(int unused);
};

#endif  // NUVSYSICONVTSWRAP_H

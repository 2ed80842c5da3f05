// ArgTable.h - a read-only walk over the named-argument table, for the
// library's own diagnostics and for its tests.
#ifndef SYSTEMTS_ARGTABLE_H
#define SYSTEMTS_ARGTABLE_H

#include <functional>

#include "ArgEnt.h"

namespace systemts::detail {

// Calls `visit` for every entry, in table order, under the table's read lock
// (so `visit` must not change the table). False, with no call, when the table
// does not exist.
bool visitArgTable(const std::function<void(const ArgEnt&)>& visit);

}  // namespace systemts::detail

#endif  // SYSTEMTS_ARGTABLE_H

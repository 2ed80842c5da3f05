// NUVSysRefCounter: the out-of-line destructor anchors the class's virtual
// table and type information in the library.
#include "NUVSysRefCounter.h"

NUVSysRefCounter::~NUVSysRefCounter() = default;

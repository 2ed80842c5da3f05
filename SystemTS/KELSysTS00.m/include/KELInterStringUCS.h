// KELInterStringUCS.h - the UTF-16 form of the string representation. The
// class is declared with its base in KELInterUnicodeString.h, where the
// representation's rules are described.
#ifndef KELINTERSTRINGUCS_H
#define KELINTERSTRINGUCS_H

#include "KELInterUnicodeString.h"

#endif  // KELINTERSTRINGUCS_H

// KELInterStringMBCS.h - the multi-byte form of the string representation
// (text in the process code page). The class is declared with its base in
// KELInterUnicodeString.h, where the representation's rules are described.
#ifndef KELINTERSTRINGMBCS_H
#define KELINTERSTRINGMBCS_H

#include "KELInterUnicodeString.h"

#endif  // KELINTERSTRINGMBCS_H

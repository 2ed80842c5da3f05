// EnvironInternal.h - helpers the environment manager, the settings reader
// and the application context share inside the library.
#ifndef SYSTEMTS_ENVIRONINTERNAL_H
#define SYSTEMTS_ENVIRONINTERNAL_H

#include <cstddef>

class KELUnicodeString;

namespace systemts::detail {

// A malloc copy of `text` (its first `n` bytes), or null when memory runs out.
char* copyLine(const char* text, size_t n);
char* copyLine(const char* text);

// The one-array look-up: the value after the first "=" of the first line
// whose text before that "=" is exactly `name`; null for a null array, a null
// or empty name, or no match. Points into the stored line.
const char* lookUpInArray(char** array, const char* name);

// The application's value of `name` (current context's manager, then the
// main context's), assigned to *out (when not null) while the context's lock
// is held. False when there is no context or no value.
bool copyApplicationVariable(const char* name, KELUnicodeString* out);

}  // namespace systemts::detail

#endif  // SYSTEMTS_ENVIRONINTERNAL_H

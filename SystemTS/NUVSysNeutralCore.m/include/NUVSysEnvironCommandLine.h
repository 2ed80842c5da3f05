// NUVSysEnvironCommandLine.h - text that looks like a command line: splitting
// one line into an argument vector, quoting a vector back into one line,
// checking a vector against tables of long and short options, and the
// null-terminated vectors of 8-bit strings these hand out.
//
// Threads: every function here is stateless and callable from any thread on
// distinct data.
// Ownership: vectors and strings handed out here are allocated with malloc;
// release a vector with the function named beside the one that made it.
// Nothing here throws.
#ifndef NUVSYSENVIRONCOMMANDLINE_H
#define NUVSYSENVIRONCOMMANDLINE_H

#include <cstddef>

#include "SystemTSCommon.h"

// One long option ("--name") of the table given to
// NUVSysEnvironParseCommandOptionA. A null name ends the table.
struct NUVSysEnvironCommandLongOptionStructA {
  // The name after "--", compared byte for byte.
  const char* name;
  // 1: takes no value; 2: needs at least one value; any other value: may
  // take values.
  int kind;
  // When not null, receives the address of the vector slot that holds the
  // option's first value (null when it got none).
  char*** value;
  // Receives 1 when the option is given, plus one per value. An entry whose
  // counter is null is never matched.
  int* counter;
};

// One short option ("-x", letters may be grouped as "-xvf") of the table given
// to NUVSysEnvironParseCommandOptionA. A letter 0 ends the table for look-ups;
// the reset of the counters stops at the first entry whose counter is null.
struct NUVSysEnvironCommandShortOptionStruct {
  // The option letter, compared with the argument's byte taken as unsigned
  // (0 to 255).
  int letter;
  // Receives 1 when the letter is given.
  int* counter;
};

// Checks argv[1] .. argv[argc-1] (argv[0], the program, is skipped) against
// the two option tables; either table may be null.
//
// First every counter of both tables and every value record of the long
// table is set to 0 (null), and *badIndex to 0. Then, argument by argument:
// - "-" followed by anything but a digit is an option (so "-5" is a value, a
//   negative number). If the pending option needs a value (kind 2) and got
//   none, the check fails here.
// - "--name" is a long option: the first entry of that name with a counter.
//   With no long table it is ignored and nothing is pending. An unknown name,
//   or a name given twice, fails. A kind-1 option leaves nothing pending; any
//   other becomes the pending option, which takes the values that follow.
// - "-abc": each letter is a short option (an unknown or repeated letter
//   fails; with no short table the letters are ignored). The pending long
//   option stays pending, so "--out -v file" gives "file" to "--out".
// - Anything else is a value of the pending option: its counter goes up by 1
//   and its value record, if still empty, receives &argv[i]. With no pending
//   option the check fails.
// A kind-2 option that stands last without a value is not reported.
//
// Result: 0, or -1 with *badIndex set to the index of the offending argument.
// -1 with nothing touched when argc is below 1 or badIndex is null. A null
// argv[i] (for 1 <= i < argc) fails at i. Reads argv[0 .. argc-1] only.
SYSTEMTS_API int NUVSysEnvironParseCommandOptionA(int argc, char** argv,
                                                  NUVSysEnvironCommandLongOptionStructA* longOptions,
                                                  NUVSysEnvironCommandShortOptionStruct* shortOptions,
                                                  int* badIndex);

// Splits one line into a new argument vector of *argc strings plus a null
// terminator.
//
// Rules:
// - Every run of blanks and tabs counts as one blank, inside double quotes as
//   well (so "a  b" in quotes gives "a b", and a tab becomes a blank).
// - Outside double quotes a blank separates two arguments; the count is one
//   plus the number of separators, so the empty line gives one empty
//   argument, a leading blank an empty first argument and a trailing blank an
//   empty last one.
// - A double quote opens or closes a quoted stretch and is dropped; blanks
//   inside stay in the argument. A quote left open runs to the end of the
//   line. `""` is an empty argument (or nothing, inside a longer one).
// - Backslashes: 2n backslashes before a double quote give n backslashes, and
//   the quote opens or closes; 2n+1 give n backslashes and a literal quote. A
//   backslash before anything else is kept as it is (C:\dir\x stays).
// Every other byte, newlines and bytes that are not UTF-8 included, is copied.
//
// Result: 0, with *argv and *argc set. -1 when line, argv or argc is null
// (nothing touched), or when memory runs out (then *argv is null, *argc 0
// and nothing is leaked).
// Ownership: release the vector with NUVSysEnvironDeleteArgumentArrayA(argv,
// *argc) or NUVSysEnvrionReleaseBufferOfStringA(argv).
SYSTEMTS_API int NUVSysEnvironBuildArgumentFromCommandLine(const char* line, char*** argv, int* argc);

// The inverse of NUVSysEnvironBuildArgumentFromCommandLine: quotes argv[0]
// .. argv[argc-1] into one line, arguments separated by one blank. An
// argument is quoted when it is empty or holds a blank or a tab; a double
// quote is written as \" with the backslashes before it doubled, and in a
// quoted argument the backslashes before the closing quote are doubled too.
//
// Round trip: splitting the line gives back exactly argc and every argument,
// for every vector with argc of 1 or more whose arguments hold no tab and no
// two blanks in a row (the splitter turns those into one blank). Any other
// byte, quotes, backslashes, newlines and bytes that are not UTF-8 included,
// survives.
//
// Result: 0 with *line set to a new NUL-terminated string (release it with
// free). -1 when line is null, argc is below 1, argv or one of argv[0 ..
// argc-1] is null (nothing touched), or when memory runs out (*line null).
SYSTEMTS_API int NUVSysEnvironBuildCommandLineFromArgumentsA(int argc, char** argv, char** line);

// Frees argv[0] .. argv[argc-1] and the vector, then sets *argv to null.
// Result 0 (also, with nothing done, for a null argv, a null *argv or argc
// below 1). Strings and vector must come from malloc, as the functions of
// this header make them.
SYSTEMTS_API int NUVSysEnvironDeleteArgumentArrayA(char*** argv, int argc);

// Makes a vector of n + 1 null string pointers into *out, for the caller to
// fill with strings from malloc. -1 (nothing made) when out is null, n is 0
// or memory runs out (then *out is null).
SYSTEMTS_API int NUVSysEnvrionCreateBufferOfStringA(size_t n, char*** out);

// Frees every string of a null-terminated vector, then the vector, and sets
// *buffer to null. -1 when buffer or *buffer is null.
SYSTEMTS_API int NUVSysEnvrionReleaseBufferOfStringA(char*** buffer);

#endif  // NUVSYSENVIRONCOMMANDLINE_H

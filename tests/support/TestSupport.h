// Helpers the test programs share: the text corpora, environment variables
// that are set or left out, and child processes that report on stderr.
#ifndef SYSTEMTS_TESTS_TEST_SUPPORT_H
#define SYSTEMTS_TESTS_TEST_SUPPORT_H

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

// A file of the shared corpora, or "" when it is not there.
inline std::string readCorpus(const std::string& name) {
  std::ifstream in(std::string(SYSTEMTS_CORPORA_DIR) + "/" + name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Sets `name` to `value`, or removes it when `value` is null.
inline void setEnv(const char* name, const char* value) {
  if (value != nullptr) {
    setenv(name, value, 1);
  } else {
    unsetenv(name);
  }
}

// The body of a death test that reports what it saw on stderr: runs `f`,
// then exits with 0.
template <class F>
[[noreturn]] void runThenExit(F f) {
  f();
  std::exit(0);
}

#endif  // SYSTEMTS_TESTS_TEST_SUPPORT_H

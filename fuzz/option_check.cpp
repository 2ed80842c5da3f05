// The option checker on arbitrary vectors against fixed tables.
//
// Input: the first byte picks which tables are given; the rest, split at each
// 0 byte, is the vector, held in an array of exactly argc pointers (no null
// terminator), so a read past argc is caught. Checked: the result is 0 or -1;
// badIndex is 0 on success and a valid argument index (1 .. argc-1) on
// failure; counters and value records agree with the arguments: on success
// every counter is the number of increments the arguments call for, a letter
// or a kind-1 option is counted at most once, and a value record points at a
// value slot of the vector.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "NUVSysEnvironCommandLine.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

bool isOption(const char* a) { return a[0] == '-' && !(a[1] >= '0' && a[1] <= '9'); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t mode = data[0];
  std::vector<std::string> args(1);
  for (size_t i = 1; i < size; ++i) {
    if (data[i] == 0) {
      args.emplace_back();
    } else {
      args.back() += static_cast<char>(data[i]);
    }
  }
  const int argc = static_cast<int>(args.size());
  std::unique_ptr<char*[]> argv(new char*[args.size()]);
  for (size_t i = 0; i < args.size(); ++i) argv[i] = args[i].data();

  int c[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
  char** v[3] = {};
  NUVSysEnvironCommandLongOptionStructA longs[] = {
      {"a", 1, &v[0], &c[0]}, {"bb", 2, &v[1], &c[1]}, {"c", 3, &v[2], &c[2]}, {"", 3, nullptr, &c[3]},
      {nullptr, 0, nullptr, nullptr}};
  NUVSysEnvironCommandShortOptionStruct shorts[] = {{'x', &c[4]}, {'y', &c[5]}, {'-', &c[6]}, {0xE9, &c[7]},
                                                     {0, nullptr}};
  const bool withLong = mode & 1, withShort = mode & 2;
  int bad = -1;
  const int rc = NUVSysEnvironParseCommandOptionA(argc, argv.get(), withLong ? longs : nullptr,
                                                  withShort ? shorts : nullptr, &bad);
  check(rc == 0 || rc == -1);
  check(rc == 0 ? bad == 0 : bad >= 1 && bad < argc);
  for (int i = 0; i < 3; ++i)
    check(v[i] == nullptr || (withLong && v[i] >= &argv[1] && v[i] < &argv[argc] && !isOption(*v[i])));
  if (!withLong)
    for (int i = 0; i < 4; ++i) check(c[i] == -1);
  if (!withShort)
    for (int i = 4; i < 8; ++i) check(c[i] == -1);
  if (rc != 0) return 0;

  // Success: every counter is what the arguments call for.
  long expected = 0;
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    if (!isOption(a)) {
      ++expected;  // a value of the pending option
    } else if (a[1] == '-') {
      expected += withLong;
    } else if (withShort) {
      expected += static_cast<long>(args[i].size()) - 1;
    }
  }
  long sum = 0;
  for (int i = 0; i < 8; ++i) {
    if ((i < 4 && withLong) || (i >= 4 && withShort)) {
      check(c[i] >= 0);
      sum += c[i];
    }
  }
  check(sum == expected);
  if (withLong) check(c[0] <= 1);
  if (withShort)
    for (int i = 4; i < 8; ++i) check(c[i] <= 1);
  return 0;
}

// The command-line splitter on arbitrary lines, and the quoting round trip on
// arbitrary vectors.
//
// Input: bytes split at each 0 byte. The first piece is a line: it is split
// (from an exact-size copy, so a read past its end is caught) and the
// vector must be null-terminated, hold at least one argument, and hold no
// more bytes than the line, with no tab in any argument (two blanks can meet
// when quotes separate them, as in "a "" b"). All the pieces, with their
// tabs made blanks and blank runs shortened to one, are a vector: its quoted
// form must split back to it.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "NUVSysEnvironCommandLine.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

std::vector<std::string> split(const std::string& line) {
  std::unique_ptr<char[]> exact(new char[line.size() + 1]);
  std::memcpy(exact.get(), line.c_str(), line.size() + 1);
  char** argv = nullptr;
  int argc = 0;
  check(NUVSysEnvironBuildArgumentFromCommandLine(exact.get(), &argv, &argc) == 0);
  check(argc >= 1 && argv != nullptr && argv[argc] == nullptr);
  std::vector<std::string> out(argv, argv + argc);
  check(NUVSysEnvironDeleteArgumentArrayA(&argv, argc) == 0 && argv == nullptr);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> pieces(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      pieces.emplace_back();
    } else {
      pieces.back() += static_cast<char>(data[i]);
    }
  }

  const std::string& line = pieces.front();
  size_t bytes = 0;
  for (const std::string& a : split(line)) {
    bytes += a.size();
    check(a.find('\t') == std::string::npos);
  }
  check(bytes <= line.size());

  // The round trip, on vectors the splitter can give back.
  std::vector<std::string> args;
  for (const std::string& p : pieces) {
    std::string a;
    for (char c : p) {
      if (c == '\t') c = ' ';
      if (!(c == ' ' && !a.empty() && a.back() == ' ')) a += c;
    }
    args.push_back(a);
  }
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  char* quoted = nullptr;
  check(NUVSysEnvironBuildCommandLineFromArgumentsA(static_cast<int>(argv.size()), argv.data(), &quoted) == 0);
  const std::string q = quoted;
  free(quoted);
  check(split(q) == args);
  return 0;
}

// NUVSysTSSetArg on arbitrary vectors: every entry of the table comes from
// the arguments.
//
// Input: bytes split at each 0 byte give argv (argv[0] the program). Checked
// for every entry: its name is spelled by some argument after the program
// ("-name", "--name", "/name", "-name=...", "--name=...", or "-render=..."
// for "render"); it was not added (added 0); its kind is 0 or 1; a value is
// text of the arguments (the arguments joined with blanks contain it); and
// NUVSysTSGetArg finds it with the same kind. The table never holds more
// entries than there are arguments.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "ArgTable.h"
#include "NUVSysTSArgs.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

bool startsWith(const std::string& s, const std::string& p) { return s.compare(0, p.size(), p) == 0; }

bool spelledBy(const std::string& name, const std::vector<std::string>& args) {
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "-" + name || a == "--" + name || a == "/" + name || startsWith(a, "-" + name + "=") ||
        startsWith(a, "--" + name + "=") || (name == "render" && startsWith(a, "-render=")))
      return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> args(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      args.emplace_back();
    } else {
      args.back() += static_cast<char>(data[i]);
    }
  }
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  check(NUVSysTSSetArg(static_cast<int>(args.size()), argv.data()) == 0);

  std::string joined;
  for (const std::string& a : args) joined += a + " ";
  struct Seen {
    std::string name;
    int kind;
  };
  std::vector<Seen> entries;
  check(systemts::detail::visitArgTable([&](const systemts::detail::ArgEnt& e) {
    check(e.name != nullptr && spelledBy(e.name, args));
    check(e.added == 0 && (e.kind == 0 || e.kind == 1));
    check(e.kind == 1 || e.value == nullptr);
    if (e.value != nullptr) check(joined.find(e.value) != std::string::npos);
    entries.push_back({e.name, e.kind});
  }));
  check(entries.size() + 1 <= args.size() || entries.empty());
  for (const Seen& s : entries) {
    int kind = -1;
    KELUnicodeString v;
    check(NUVSysTSGetArg(s.name.c_str(), kind, v) == 0 && kind == s.kind);
  }
  return 0;
}

// Registration and expansion of closed tags against a model of the
// manager's algorithm.
//
// Input: lines separated by '\n' (NUL bytes dropped, at most 24 lines of at
// most 256 bytes). A line beginning with '!' is put into the variable table
// (name before the first '=', value after it); every other line goes to the
// official, static or dynamic array by its index modulo 3. A line whose last
// "${" has no "}" after it gets one appended, so that every tag is closed.
//
// The model keeps each stored line with an identity; a replaced line gets a
// new one. Registration records the tags (each text once, in order of first
// appearance) and, per tag occurrence, the line's identity. Expansion takes
// the identities as a snapshot; for each tag of 3 to 8191 bytes whose name
// has a value (table, official, static, dynamic; the first line whose text
// before its first "=" is the name), every snapshot entry whose identity
// still stands in an array gets its line replaced (every occurrence, left to
// right, the scan resuming after the inserted value) under a new identity.
// The arrays must end equal to the model's.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "NUVSysEnvironmentManager.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

struct Line {
  std::string text;
  long id;
};

struct Model {
  std::vector<Line> arrays[3];  // official, static, dynamic
  std::map<std::string, std::string> table;
  std::vector<std::string> tags;
  std::vector<long> addrs;
  long nextId = 1;

  void add(int array, const std::string& text) {
    const long id = nextId++;
    arrays[array].push_back({text, id});
    size_t pos = 0;
    for (;;) {
      const size_t start = text.find("${", pos);
      if (start == std::string::npos) break;
      const size_t end = text.find('}', start + 2);
      std::string tag = text.substr(start, end - start + 1);
      if (tag.size() > 8192) tag.resize(8191);
      bool known = false;
      for (const std::string& t : tags) known = known || t == tag;
      if (!known) tags.push_back(tag);
      addrs.push_back(id);
      pos = end;
    }
  }

  const std::string* lookUp(const std::vector<Line>& lines, const std::string& name) const {
    if (name.empty()) return nullptr;
    for (const Line& l : lines) {
      const size_t eq = l.text.find('=');
      if (eq != std::string::npos && l.text.compare(0, eq, name) == 0 && eq == name.size()) {
        static thread_local std::string value;
        value = l.text.substr(eq + 1);
        return &value;
      }
    }
    return nullptr;
  }

  bool get(const std::string& name, std::string& value) const {
    if (name.empty()) return false;
    const auto it = table.find(name);
    if (it != table.end()) {
      value = it->second;
      return true;
    }
    for (int a = 0; a < 3; ++a)
      if (const std::string* v = lookUp(arrays[a], name)) {
        value = *v;
        return true;
      }
    return false;
  }

  static std::string replaceAll(std::string text, const std::string& search, const std::string& replacement) {
    for (size_t at = text.find(search); at != std::string::npos; at = text.find(search, at)) {
      text.replace(at, search.size(), replacement);
      at += replacement.size();
    }
    return text;
  }

  void expand() {
    std::vector<long> snapshot = addrs;
    for (const std::string& tag : tags) {
      if (tag.size() < 3 || tag.size() > 8191) continue;
      std::string value;
      if (!get(tag.substr(2, tag.size() - 3), value)) continue;
      for (long& entry : snapshot) {
        Line* line = nullptr;
        for (int a = 0; a < 3 && line == nullptr; ++a)
          for (Line& l : arrays[a])
            if (l.id == entry) line = &l;
        if (line == nullptr) continue;
        line->text = replaceAll(line->text, tag, value);
        line->id = entry = nextId++;
      }
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> lines(1);
  for (size_t i = 0; i < size && lines.size() <= 24; ++i) {
    if (data[i] == '\n') {
      lines.emplace_back();
    } else if (data[i] != 0 && lines.back().size() < 256) {
      lines.back() += static_cast<char>(data[i]);
    }
  }
  if (lines.size() > 24) lines.resize(24);
  for (std::string& l : lines) {
    const size_t open = l.rfind("${");
    if (open != std::string::npos && l.find('}', open + 2) == std::string::npos) l += '}';
  }

  Model model;
  std::vector<std::string> perArray[3];
  std::vector<std::string> puts;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (!lines[i].empty() && lines[i][0] == '!') {
      puts.push_back(lines[i].substr(1));
    } else {
      perArray[i % 3].push_back(lines[i]);
    }
  }
  NUVSysEnvironmentManager m;
  check(m.BuildOfficialEnviron(static_cast<int>(perArray[0].size())) == 0);
  check(m.BuildStaticEnviron(static_cast<int>(perArray[1].size())) == 0);
  check(m.BuildDynamicEnviron(static_cast<int>(perArray[2].size())) == 0);
  char** arrays[3] = {m.GetOfficialEnviron(), m.GetStaticEnviron(), m.GetDynamicEnviron()};
  // Filled in input order, as registration order matters.
  size_t next[3] = {0, 0, 0};
  for (size_t i = 0; i < lines.size(); ++i) {
    if (!lines[i].empty() && lines[i][0] == '!') continue;
    const int a = static_cast<int>(i % 3);
    check(m.BuildEnvironString(&arrays[a][next[a]++], lines[i].c_str()) == 0);
    model.add(a, lines[i]);
  }
  for (const std::string& p : puts) {
    const size_t eq = p.find('=');
    const std::string name = p.substr(0, eq);
    const std::string value = eq == std::string::npos ? std::string() : p.substr(eq + 1);
    check(m.PutEnvInTable(name.c_str(), value.c_str()) == 0);
    model.table[name] = value;
  }
  check(m.ExpandAllEnvironStrings() == 0);
  model.expand();
  for (int a = 0; a < 3; ++a)
    for (size_t i = 0; i < model.arrays[a].size(); ++i) check(model.arrays[a][i].text == arrays[a][i]);
  return 0;
}

// KELString built from arbitrary bytes (outside the development stage, so
// every byte but 0 is kept), then a sequence of searches, replacements,
// substrings and strips, each checked against a std::string model of the
// documented results. A copy taken before each step must not change, so that
// copy-on-write and the extra references of self-replacement are exercised.
//
// Input: the text up to the first 0 byte, then operations of four bytes:
// opcode, then three operands.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "KELString.h"

namespace {

void check(bool ok) {
  if (!ok) abort();
}

// The operations stop once the text passes this many bytes. Self-appends
// double it, so without a cap a short input grows it to hundreds of MiB and
// the run ends out of memory instead of finding faults; every edge case of
// the operations shows on texts far shorter.
constexpr size_t kMaxModelBytes = 4096;

std::string bytesOf(const KELString& s) {
  const char* t = s.ConvertToChar();
  const int n = s.Length();
  check(n >= 0 && t[n] == '\0');
  return std::string(t, static_cast<size_t>(n));
}

// The documented results, written from the rules rather than the code.
int modelFind(const std::string& m, const std::string& sub, int start) {
  if (start < 0 || static_cast<size_t>(start) > m.size() || sub.size() > m.size()) return -1;
  const size_t at = m.find(sub, static_cast<size_t>(start));
  return at == std::string::npos ? -1 : static_cast<int>(at);
}

void modelReplace(std::string& m, int start, int len, const std::string& by) {
  const long n = static_cast<long>(m.size());
  if (start < 0 || len < 0 || n == 0 || start > n) return;
  const long total = n - len + static_cast<long>(by.size());
  if (total < 0) return;
  std::string r = m.substr(0, static_cast<size_t>(start)) + by;
  if (static_cast<long>(start) + len < n) r += m.substr(static_cast<size_t>(start + len));
  r.resize(static_cast<size_t>(total));
  m = r;
}

std::string modelSub(const std::string& m, unsigned long start, unsigned long len) {
  if (!m.empty() && start < start + len && start + len <= m.size()) return m.substr(start, len);
  return m;
}

std::string modelStrip(const std::string& m, int mode, char c) {
  std::string r = m;
  if (mode & 4) {
    r.erase(std::remove(r.begin(), r.end(), c), r.end());
    return r;
  }
  if (mode & 1) r.erase(0, std::min(r.size(), r.find_first_not_of(c)));
  if (mode & 2) {
    const size_t last = r.find_last_not_of(c);
    r.erase(last == std::string::npos ? 0 : last + 1);
  }
  return r;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  KELInterUnicodeString::S_devStage = 0;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto* text = reinterpret_cast<const char*>(data);
  const size_t textLen = strnlen(text, size);
  std::string model(text, textLen);
  KELString s(model.c_str());
  check(bytesOf(s) == model);
  for (size_t at = textLen + 1; at + 4 <= size && model.size() <= kMaxModelBytes; at += 4) {
    const unsigned op = data[at], x = data[at + 1], y = data[at + 2], z = data[at + 3];
    const int n = static_cast<int>(model.size());
    // Positions and lengths from a little before 0 to a little past the end.
    const int px = static_cast<int>(x % (n + 6)) - 2, py = static_cast<int>(y % (n + 6)) - 2;
    // A piece of the text itself (so that searches hit), or the text whole.
    const std::string piece = (z & 1) ? model : model.substr(std::min<size_t>(x % (n + 1), n), y % 5);
    const KELString other = (z & 1) ? s : KELString(piece.c_str());
    const KELString before(s);
    const std::string modelBefore = model;
    switch (op % 6) {
      case 0:
        check(s.FindPosition(other, px) == modelFind(model, piece, px));
        break;
      case 1:
        s.ReplaceSubString(px, py, other);
        modelReplace(model, px, py, piece);
        break;
      case 2: {
        const std::string by(z % 4, static_cast<char>('a' + y % 3));
        const int pos = s.ReplaceSubString(other, KELString(by.c_str()));
        const int modelPos = modelFind(model, piece, 0);
        check(pos == modelPos);
        if (pos >= 0) modelReplace(model, pos, static_cast<int>(piece.size()), by);
        break;
      }
      case 3: {
        const unsigned long start = (z & 2) ? ~0UL - x : static_cast<unsigned long>(px),
                            len = (z & 4) ? ~0UL - y : static_cast<unsigned long>(py);
        check(bytesOf(s.SubString(start, len)) == modelSub(model, start, len));
        break;
      }
      case 4: {
        const char c = (z & 8) || model.empty() ? static_cast<char>(y | 1) : model[x % model.size()];
        check(bytesOf(s.Strip(static_cast<KELStripMode>(z % 8), KELChar(c))) == modelStrip(model, z % 8, c));
        break;
      }
      case 5:
        s += other;
        model += piece;
        break;
    }
    check(bytesOf(s) == model);
    check(bytesOf(before) == modelBefore);
    check(s.IsNull() == model.empty());
  }
  return 0;
}

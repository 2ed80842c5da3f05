// Code-page conversion against raw iconv and ICU on real legacy text.
//
//   bench_codepage [benchmark flags]
//
// Corpora: the legacy encodings of the latin and cjk texts
// (latin.iso-8859-1.txt, latin.cp1252.txt, cjk.shift_jis.txt, cjk.euc-jp.txt,
// cjk.gb18030.txt), read at startup from $SYSTEMTS_CORPORA, else from the
// directory the build configured. A missing file skips its corpus with a
// message; none at all ends the program.
//
// Names are <case>/<impl> with our implementation named "ours", so
// bench/ratios.py tabulates peer time over our time:
//   cp_to16/<corpus>/{ours, iconv, icu}     code page to UTF-16, one shot
//   cp_from16/<corpus>/{ours, iconv, icu}   UTF-16 to the code page
//   cp_threads_to16/<corpus>/{ours, one_thread}/real_time
//   cp_threads_from16/<corpus>/{ours, one_thread}/real_time
//   cp_threads_iconv_to16/<corpus>/{ours, one_thread}/real_time
//   cp_threads_iconv_from16/<corpus>/{ours, one_thread}/real_time
// iconv is one descriptor opened once (to and from "UTF-16LE", the names the
// converter uses) for each thread that converts; icu is one UConverter opened
// once. In the thread cases both members convert the corpus kPerThread * 2
// times per iteration: "ours" on two threads at once, "one_thread" on one
// (threads started before the timing and kept), so the ratio is the speed-up
// two threads give. cp_threads_iconv_* do the same work with raw iconv instead
// of our converter; there "ours" still names the two-thread member, so that
// ratios.py shows that speed-up too. It is the control group: how far glibc's
// own converter modules scale on this machine (EUC-JP, say), against which
// our converter's speed-up on the same code page is read.
// cp_threads_memcpy_to16/<corpus>/{ours, one_thread}/real_time copies the
// corpus's UTF-16 text into the same output buffers instead of converting:
// the speed-up two threads get from memory alone, which bounds that of a
// conversion as fast as the single-byte ones.
//
// Every member of a corpus reports the code-page bytes of that corpus per
// conversion, so bytes_per_second compare directly.
#include <benchmark/benchmark.h>
#include <iconv.h>
#include <pthread.h>
#include <sched.h>
#include <unicode/ucnv.h>

#include <algorithm>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "NUVSysCodePage.h"
#include "bench_common.h"

namespace {

static_assert(sizeof(UChar) == sizeof(unsigned short), "ICU reads our UTF-16 buffers in place");

// Enough work per iteration to hide the hand-off to the workers: a
// single-byte corpus converts in tens of microseconds, and waking two
// threads and waiting for both costs about as much as one conversion.
constexpr int kPerThread = 32;

struct Corpus {
  const char* name;     // in benchmark names
  const char* file;
  const char* iconvName;
  const char* icuName;
  std::string bytes;
  std::vector<unsigned short> utf16;  // iconv's conversion of bytes, made once
  NUVSysCodePage* ours = nullptr;     // never freed: lives as long as the benchmarks
  iconv_t to16 = reinterpret_cast<iconv_t>(-1);
  iconv_t from16 = reinterpret_cast<iconv_t>(-1);
  UConverter* icu = nullptr;
};

std::vector<Corpus> g_corpora = {
    {"iso-8859-1", "latin.iso-8859-1.txt", "ISO-8859-1", "ISO-8859-1", {}, {}},
    {"cp1252", "latin.cp1252.txt", "CP1252", "windows-1252", {}, {}},
    {"shift_jis", "cjk.shift_jis.txt", "SHIFT_JIS", "Shift_JIS", {}, {}},
    {"euc-jp", "cjk.euc-jp.txt", "EUC-JP", "EUC-JP", {}, {}},
    {"gb18030", "cjk.gb18030.txt", "GB18030", "GB18030", {}, {}},
};

[[noreturn]] void fail(const char* what, const Corpus& c) {
  std::fprintf(stderr, "bench_codepage: %s on corpus '%s'; the measurements would mean nothing\n", what, c.name);
  std::exit(3);
}

// Whole-buffer conversions with a reused descriptor (`to16` or `from16` of
// the corpus's code page), as a caller of iconv would write them; the corpora
// convert without error.
size_t rawTo16(iconv_t to16, const Corpus& c, unsigned short* out, size_t room) {
  char* in = const_cast<char*>(c.bytes.data());
  size_t inLeft = c.bytes.size();
  char* o = reinterpret_cast<char*>(out);
  size_t oLeft = 2 * room;
  const size_t rc = iconv(to16, &in, &inLeft, &o, &oLeft);
  iconv(to16, nullptr, nullptr, nullptr, nullptr);
  return rc == static_cast<size_t>(-1) ? 0 : (2 * room - oLeft) / 2;
}

size_t rawFrom16(iconv_t from16, const Corpus& c, char* out, size_t room) {
  char* in = reinterpret_cast<char*>(const_cast<unsigned short*>(c.utf16.data()));
  size_t inLeft = 2 * c.utf16.size();
  char* o = out;
  size_t oLeft = room;
  const size_t rc = iconv(from16, &in, &inLeft, &o, &oLeft);
  iconv(from16, nullptr, nullptr, nullptr, nullptr);
  return rc == static_cast<size_t>(-1) ? 0 : room - oLeft;
}

void load() {
  const std::string dir = bench::corporaDir();
  std::vector<Corpus> kept;
  for (Corpus& c : g_corpora) {
    bench::readFile(dir + "/" + c.file, c.bytes);
    if (c.bytes.empty() || c.bytes.size() > static_cast<size_t>(INT_MAX) / 4) {
      std::fprintf(stderr, "bench_codepage: skipping %s: cannot read %s/%s\n", c.name, dir.c_str(), c.file);
      continue;
    }
    c.to16 = iconv_open("UTF-16LE", c.iconvName);
    c.from16 = iconv_open(c.iconvName, "UTF-16LE");
    if (c.to16 == reinterpret_cast<iconv_t>(-1) || c.from16 == reinterpret_cast<iconv_t>(-1)) {
      std::fprintf(stderr, "bench_codepage: skipping %s: iconv does not know %s\n", c.name, c.iconvName);
      continue;
    }
    UErrorCode err = U_ZERO_ERROR;
    c.icu = ucnv_open(c.icuName, &err);
    if (U_FAILURE(err)) fail("ICU cannot open the converter", c);
    c.ours = new NUVSysCodePage(c.iconvName);
    if (!c.ours->IsValid()) fail("NUVSysCodePage cannot open the code page", c);
    c.utf16.resize(c.bytes.size() + 2);
    c.utf16.resize(rawTo16(c.to16, c, c.utf16.data(), c.utf16.size()));
    if (c.utf16.empty()) fail("iconv cannot convert the corpus", c);
    kept.push_back(std::move(c));
  }
  g_corpora = std::move(kept);
  if (g_corpora.empty()) {
    std::fprintf(stderr, "bench_codepage: no corpus found in %s (set SYSTEMTS_CORPORA)\n", dir.c_str());
    std::exit(2);
  }
}

// Runs before registration, untimed: ours must give exactly what iconv gives
// in both directions. ICU's tables differ from glibc's in places (Shift_JIS
// 0x5C, for one); that is reported, not fatal, since it converts the same
// text all the same.
void selfCheck() {
  for (const Corpus& c : g_corpora) {
    std::vector<unsigned short> u(c.bytes.size() + 2, 0xAAAA);
    int n = 0;
    c.ours->ConvertMBCSToUTF16(c.bytes.data(), static_cast<int>(c.bytes.size()), u.data(), &n);
    if (static_cast<size_t>(n) != c.utf16.size() || !std::equal(c.utf16.begin(), c.utf16.end(), u.begin()))
      fail("ConvertMBCSToUTF16 differs from iconv", c);

    std::string back(4 * c.utf16.size() + 1, '\x55');
    c.ours->ConvertUTF16ToMBCS(c.utf16.data(), static_cast<int>(c.utf16.size()), &back[0], &n);
    if (static_cast<size_t>(n) != c.bytes.size() || back.compare(0, c.bytes.size(), c.bytes) != 0)
      fail("ConvertUTF16ToMBCS does not give the corpus back", c);
    back.assign(4 * c.utf16.size() + 1, '\x55');
    if (rawFrom16(c.from16, c, &back[0], back.size()) != c.bytes.size() ||
        back.compare(0, c.bytes.size(), c.bytes) != 0)
      fail("iconv does not give the corpus back", c);

    UErrorCode err = U_ZERO_ERROR;
    std::vector<UChar> icu(c.bytes.size() + 2);
    const int32_t m = ucnv_toUChars(c.icu, icu.data(), static_cast<int32_t>(icu.size()), c.bytes.data(),
                                    static_cast<int32_t>(c.bytes.size()), &err);
    if (U_FAILURE(err)) fail("ucnv_toUChars failed", c);
    size_t differ = static_cast<size_t>(m) == c.utf16.size() ? 0 : 1;
    for (size_t i = 0; differ == 0 && i < c.utf16.size(); ++i) differ += icu[i] != c.utf16[i];
    if (differ != 0) {
      size_t units = 0;
      for (size_t i = 0; i < std::min(c.utf16.size(), static_cast<size_t>(m)); ++i) units += icu[i] != c.utf16[i];
      std::fprintf(stderr, "bench_codepage: note: ICU's %s gives %d units, glibc's %zu; %zu differ\n", c.icuName,
                   m, c.utf16.size(), units);
    }
  }
}

using IconvHandle = std::unique_ptr<std::remove_pointer_t<iconv_t>, int (*)(iconv_t)>;

IconvHandle openIconv(const char* to, const char* from, const Corpus& c) {
  const iconv_t cd = iconv_open(to, from);
  if (cd == reinterpret_cast<iconv_t>(-1)) fail("iconv_open failed", c);
  return IconvHandle(cd, iconv_close);
}

// Per-thread output room for one corpus, and that thread's own iconv
// descriptors for the raw iconv members: a descriptor keeps conversion state,
// so two threads converting at once cannot share one.
struct Room {
  std::vector<unsigned short> u16;
  std::string bytes;
  IconvHandle to16, from16;
  explicit Room(const Corpus& c)
      : u16(c.bytes.size() + 2),
        bytes(4 * c.utf16.size() + 1, '\0'),
        to16(openIconv("UTF-16LE", c.iconvName, c)),
        from16(openIconv(c.iconvName, "UTF-16LE", c)) {}
};

void oursTo16(const Corpus& c, Room& r) {
  int n = 0;
  c.ours->ConvertMBCSToUTF16(c.bytes.data(), static_cast<int>(c.bytes.size()), r.u16.data(), &n);
  benchmark::DoNotOptimize(n);
  benchmark::ClobberMemory();
}

void oursFrom16(const Corpus& c, Room& r) {
  int n = 0;
  c.ours->ConvertUTF16ToMBCS(c.utf16.data(), static_cast<int>(c.utf16.size()), &r.bytes[0], &n);
  benchmark::DoNotOptimize(n);
  benchmark::ClobberMemory();
}

void iconvTo16(const Corpus& c, Room& r) {
  benchmark::DoNotOptimize(rawTo16(r.to16.get(), c, r.u16.data(), r.u16.size()));
  benchmark::ClobberMemory();
}

void iconvFrom16(const Corpus& c, Room& r) {
  benchmark::DoNotOptimize(rawFrom16(r.from16.get(), c, &r.bytes[0], r.bytes.size()));
  benchmark::ClobberMemory();
}

// Writes the corpus's UTF-16 text to the room as a conversion would, but as
// a plain copy: no conversion at all, only the memory traffic.
void copyTo16(const Corpus& c, Room& r) {
  std::memcpy(r.u16.data(), c.utf16.data(), 2 * c.utf16.size());
  benchmark::ClobberMemory();
}

template <typename Body>
void add(const std::string& name, const Corpus& c, Body body) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [&c, body](benchmark::State& st) {
                                 Room room(c);
                                 for (auto _ : st) body(c, room);
                                 st.SetBytesProcessed(st.iterations() * static_cast<int64_t>(c.bytes.size()));
                               })
      ->Unit(benchmark::kMicrosecond);
}

// Worker threads that live for one benchmark run: the converter opens its
// iconv descriptors once per thread and keeps them (and the raw iconv members
// keep theirs in the thread's room), so fresh threads for each iteration would
// measure iconv_open instead of the conversion.
class Workers {
 public:
  // Worker t runs on processor t (modulo their number). Left to the
  // scheduler, workers woken together by one thread were often started on
  // that thread's processor and shared it until the load balancer moved
  // one, which on this kind of case took longer than the conversions.
  Workers(int n, std::function<void(int)> job) : _job(std::move(job)) {
    const unsigned cpus = std::max(1u, std::thread::hardware_concurrency());
    for (int t = 0; t < n; ++t) {
      _threads.emplace_back([this, t] { loop(t); });
      cpu_set_t set;
      CPU_ZERO(&set);
      CPU_SET(static_cast<unsigned>(t) % cpus, &set);
      pthread_setaffinity_np(_threads.back().native_handle(), sizeof set, &set);  // only a hint
    }
  }
  ~Workers() {
    {
      std::lock_guard<std::mutex> lock(_mutex);
      _stop = true;
    }
    _go.notify_all();
    for (std::thread& t : _threads) t.join();
  }
  // Every worker runs the job once; returns when all have finished.
  void run() {
    std::unique_lock<std::mutex> lock(_mutex);
    _pending = static_cast<int>(_threads.size());
    ++_generation;
    _go.notify_all();
    _done.wait(lock, [this] { return _pending == 0; });
  }

 private:
  void loop(int t) {
    unsigned seen = 0;
    for (;;) {
      {
        std::unique_lock<std::mutex> lock(_mutex);
        _go.wait(lock, [&] { return _stop || _generation != seen; });
        if (_stop) return;
        seen = _generation;
      }
      _job(t);
      std::lock_guard<std::mutex> lock(_mutex);
      if (--_pending == 0) _done.notify_one();
    }
  }

  std::function<void(int)> _job;
  std::mutex _mutex;
  std::condition_variable _go, _done;
  unsigned _generation = 0;
  int _pending = 0;
  bool _stop = false;
  std::vector<std::thread> _threads;
};

// 2 * kPerThread conversions per iteration, on `threads` threads (1 or 2),
// each with a room of its own.
template <void (*Convert)(const Corpus&, Room&)>
void addThreads(const std::string& name, const Corpus& c, int threads) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [&c, threads](benchmark::State& st) {
                                 std::vector<Room> rooms;
                                 for (int t = 0; t < threads; ++t) rooms.emplace_back(c);
                                 const int each = 2 * kPerThread / threads;
                                 Workers workers(threads, [&c, &rooms, each](int t) {
                                   for (int i = 0; i < each; ++i) Convert(c, rooms[static_cast<size_t>(t)]);
                                 });
                                 workers.run();  // first use on each thread, untimed
                                 for (auto _ : st) workers.run();
                                 st.SetBytesProcessed(st.iterations() * 2 * kPerThread *
                                                      static_cast<int64_t>(c.bytes.size()));
                               })
      ->UseRealTime()
      ->Unit(benchmark::kMicrosecond);
}

// <family><corpus>/ours on two threads and <family><corpus>/one_thread on one.
template <void (*Convert)(const Corpus&, Room&)>
void addThreadPair(const char* family, const Corpus& c) {
  addThreads<Convert>(family + std::string(c.name) + "/ours", c, 2);
  addThreads<Convert>(family + std::string(c.name) + "/one_thread", c, 1);
}

void registerAll() {
  for (const Corpus& c : g_corpora) {
    const std::string to16 = std::string("cp_to16/") + c.name + "/";
    add(to16 + "ours", c, oursTo16);
    add(to16 + "iconv", c, iconvTo16);
    add(to16 + "icu", c, [](const Corpus& k, Room& r) {
      UErrorCode err = U_ZERO_ERROR;
      benchmark::DoNotOptimize(ucnv_toUChars(k.icu, reinterpret_cast<UChar*>(r.u16.data()),
                                             static_cast<int32_t>(r.u16.size()), k.bytes.data(),
                                             static_cast<int32_t>(k.bytes.size()), &err));
      benchmark::ClobberMemory();
    });

    const std::string from16 = std::string("cp_from16/") + c.name + "/";
    add(from16 + "ours", c, oursFrom16);
    add(from16 + "iconv", c, iconvFrom16);
    add(from16 + "icu", c, [](const Corpus& k, Room& r) {
      UErrorCode err = U_ZERO_ERROR;
      benchmark::DoNotOptimize(ucnv_fromUChars(k.icu, &r.bytes[0], static_cast<int32_t>(r.bytes.size()),
                                               reinterpret_cast<const UChar*>(k.utf16.data()),
                                               static_cast<int32_t>(k.utf16.size()), &err));
      benchmark::ClobberMemory();
    });

    addThreadPair<oursTo16>("cp_threads_to16/", c);
    addThreadPair<oursFrom16>("cp_threads_from16/", c);
    addThreadPair<iconvTo16>("cp_threads_iconv_to16/", c);
    addThreadPair<iconvFrom16>("cp_threads_iconv_from16/", c);
    addThreadPair<copyTo16>("cp_threads_memcpy_to16/", c);
  }
}

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv, [] {
    load();
    selfCheck();
    registerAll();
  });
}

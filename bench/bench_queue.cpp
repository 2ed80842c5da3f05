// Queue throughput, blocking hand-off between threads, in one run: our
// NUVSysTSDataQueue against GLib's GAsyncQueue and a std::mutex +
// std::condition_variable + std::deque queue.
//
// Shapes: one producer and one consumer; two producers and one consumer.
// Each iteration makes a fresh queue, the producers push kValues values in
// total (split evenly) and the benchmark thread pops them all with waits
// without limit, then the producers are joined. Items processed: the values
// handed over. Real time, since the work spans threads.
#include <benchmark/benchmark.h>
#include <glib.h>

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "NUVSysTSDataQueue.h"
#include "bench_common.h"

namespace {

constexpr int kValues = 1000000;

void* valueOf(int producer, int i) {
  // Non-null, and tells which producer sent it and in which order.
  return reinterpret_cast<void*>((static_cast<uintptr_t>(producer) << 32) | static_cast<uintptr_t>(i + 1));
}

// Checks what the consumer saw: every value once, each producer's in order.
class Checker {
 public:
  explicit Checker(int producers) : _next(producers, 1) {}
  void see(void* v) {
    const auto bits = reinterpret_cast<uintptr_t>(v);
    const auto producer = static_cast<size_t>(bits >> 32);
    const auto i = static_cast<uint32_t>(bits);
    if (producer >= _next.size() || i != _next[producer]) _ok = false;
    ++_next[producer];
  }
  void done(const char* what) const {
    if (!_ok) {
      std::fprintf(stderr, "bench_queue: %s lost, duplicated or reordered values\n", what);
      std::exit(3);
    }
  }

 private:
  std::vector<uint32_t> _next;
  bool _ok = true;
};

// The std peer: what one writes with the standard library alone.
class StdQueue {
 public:
  void push(void* v) {
    {
      std::lock_guard<std::mutex> lock(_mutex);
      _values.push_back(v);
    }
    _cond.notify_one();
  }
  void* pop() {
    std::unique_lock<std::mutex> lock(_mutex);
    _cond.wait(lock, [this] { return !_values.empty(); });
    void* v = _values.front();
    _values.pop_front();
    return v;
  }

 private:
  std::mutex _mutex;
  std::condition_variable _cond;
  std::deque<void*> _values;
};

struct Ours {
  NUVSysTSDataQueue* q = NUVSysTSDataQueue::CreateEmptyQ(true, 0);
  ~Ours() { q->Release(); }
  void push(void* v) {
    if (q->PushFirst(v, -1) != 1) std::abort();
  }
  void* pop() {
    void* v = nullptr;
    if (q->PopLast(&v, -1) != 1) std::abort();
    return v;
  }
};

struct GLib {
  GAsyncQueue* q = g_async_queue_new();
  ~GLib() { g_async_queue_unref(q); }
  void push(void* v) { g_async_queue_push(q, v); }
  void* pop() { return g_async_queue_pop(q); }
};

struct Std {
  StdQueue q;
  void push(void* v) { q.push(v); }
  void* pop() { return q.pop(); }
};

template <class Queue>
void handOff(benchmark::State& st, const char* what) {
  const int producers = static_cast<int>(st.range(0));
  const int perProducer = kValues / producers;
  for (auto _ : st) {
    Queue queue;
    Checker checker(producers);
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
      threads.emplace_back([&queue, p, perProducer] {
        for (int i = 0; i < perProducer; ++i) queue.push(valueOf(p, i));
      });
    }
    for (int i = 0; i < perProducer * producers; ++i) checker.see(queue.pop());
    for (auto& t : threads) t.join();
    checker.done(what);
  }
  st.SetItemsProcessed(st.iterations() * static_cast<int64_t>(perProducer) * producers);
}

void ours(benchmark::State& st) { handOff<Ours>(st, "ours"); }
void glib(benchmark::State& st) { handOff<GLib>(st, "glib"); }
void stdq(benchmark::State& st) { handOff<Std>(st, "std"); }

}  // namespace

// Names: queue/<impl>/<producers>.
BENCHMARK(ours)->Name("queue/ours")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(glib)->Name("queue/glib")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(stdq)->Name("queue/std")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) { return bench::run(argc, argv); }

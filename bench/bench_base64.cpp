// base64 encode and decode of 1 MiB against OpenSSL and GLib, in one run.
// Bytes processed: the binary size (1 MiB) for both directions.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <openssl/evp.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "NUVSysConverter.h"
#include "bench_common.h"

namespace {

std::vector<unsigned char> g_bytes;
std::string g_text;
std::vector<unsigned char> g_out;

void setUp() {
  std::mt19937 rng(2026);
  g_bytes.resize(1 << 20);
  for (auto& b : g_bytes) b = static_cast<unsigned char>(rng());
  char* text = nullptr;
  if (NUVSysConverter::ConvertToBase64(g_bytes.data(), g_bytes.size(), text) != 0) std::exit(3);
  g_text = text;
  delete[] text;
  g_out.resize(g_text.size() + 64);
  // The peers must agree with us, or the comparison means nothing.
  EVP_EncodeBlock(g_out.data(), g_bytes.data(), static_cast<int>(g_bytes.size()));
  gchar* glibText = g_base64_encode(g_bytes.data(), g_bytes.size());
  if (g_text != reinterpret_cast<char*>(g_out.data()) || g_text != glibText) {
    std::fprintf(stderr, "bench_base64: encoders disagree\n");
    std::exit(3);
  }
  g_free(glibText);
  unsigned char* ours = nullptr;
  size_t n = 0;
  gsize glibN = 0;
  guchar* glibBytes = g_base64_decode(g_text.c_str(), &glibN);
  const int sslN = EVP_DecodeBlock(g_out.data(), reinterpret_cast<const unsigned char*>(g_text.data()),
                                   static_cast<int>(g_text.size()));
  if (NUVSysConverter::ConvertFromBase64(g_text.c_str(), ours, n) != 0 || n != g_bytes.size() ||
      std::memcmp(ours, g_bytes.data(), n) != 0 || glibN != n || std::memcmp(glibBytes, ours, n) != 0 ||
      sslN < static_cast<int>(n) || std::memcmp(g_out.data(), ours, n) != 0) {
    std::fprintf(stderr, "bench_base64: decoders disagree\n");
    std::exit(3);
  }
  g_free(glibBytes);
  delete[] ours;
}

void oursEncode(benchmark::State& st) {
  for (auto _ : st) {
    char* text = nullptr;
    NUVSysConverter::ConvertToBase64(g_bytes.data(), g_bytes.size(), text);
    benchmark::DoNotOptimize(text);
    delete[] text;
  }
  st.SetBytesProcessed(st.iterations() * static_cast<int64_t>(g_bytes.size()));
}

void opensslEncode(benchmark::State& st) {
  for (auto _ : st) {
    // Same work as ours: a fresh output buffer per call.
    auto* out = new unsigned char[g_text.size() + 1];
    benchmark::DoNotOptimize(EVP_EncodeBlock(out, g_bytes.data(), static_cast<int>(g_bytes.size())));
    delete[] out;
  }
  st.SetBytesProcessed(st.iterations() * static_cast<int64_t>(g_bytes.size()));
}

void glibEncode(benchmark::State& st) {
  for (auto _ : st) {
    gchar* text = g_base64_encode(g_bytes.data(), g_bytes.size());
    benchmark::DoNotOptimize(text);
    g_free(text);
  }
  st.SetBytesProcessed(st.iterations() * static_cast<int64_t>(g_bytes.size()));
}

void oursDecode(benchmark::State& st) {
  for (auto _ : st) {
    unsigned char* data = nullptr;
    size_t n = 0;
    NUVSysConverter::ConvertFromBase64(g_text.c_str(), data, n);
    benchmark::DoNotOptimize(data);
    delete[] data;
  }
  st.SetBytesProcessed(st.iterations() * static_cast<int64_t>(g_bytes.size()));
}

void opensslDecode(benchmark::State& st) {
  for (auto _ : st) {
    auto* out = new unsigned char[g_bytes.size() + 3];
    benchmark::DoNotOptimize(EVP_DecodeBlock(out, reinterpret_cast<const unsigned char*>(g_text.data()),
                                             static_cast<int>(g_text.size())));
    delete[] out;
  }
  st.SetBytesProcessed(st.iterations() * static_cast<int64_t>(g_bytes.size()));
}

void glibDecode(benchmark::State& st) {
  for (auto _ : st) {
    gsize n = 0;
    guchar* data = g_base64_decode(g_text.c_str(), &n);
    benchmark::DoNotOptimize(data);
    g_free(data);
  }
  st.SetBytesProcessed(st.iterations() * static_cast<int64_t>(g_bytes.size()));
}

}  // namespace

BENCHMARK(oursEncode)->Name("base64_encode/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(opensslEncode)->Name("base64_encode/openssl")->Unit(benchmark::kMicrosecond);
BENCHMARK(glibEncode)->Name("base64_encode/glib")->Unit(benchmark::kMicrosecond);
BENCHMARK(oursDecode)->Name("base64_decode/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(opensslDecode)->Name("base64_decode/openssl")->Unit(benchmark::kMicrosecond);
BENCHMARK(glibDecode)->Name("base64_decode/glib")->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) { return bench::run(argc, argv, setUp); }

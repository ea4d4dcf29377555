// What does the generation of an RSA key cost beyond libcrypto's own work?
#include <benchmark/benchmark.h>
#include <keymaster_tivas_context.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <chrono>
#include <random>

#include "requests.h"

namespace bench {

namespace {

// libcrypto's random numbers from a seed, so that both sides search for the same primes.
std::mt19937 g_random;
int RandomBytes(unsigned char* out, int count) {
  std::generate_n(out, count, [] { return static_cast<unsigned char>(g_random()); });
  return 1;
}
int Ready() { return 1; }
const RAND_METHOD kSeeded = {nullptr, RandomBytes, nullptr, nullptr, RandomBytes, Ready};

int32_t Library(unsigned bits) {
  static keymaster::KeymasterTivasContext context;
  const Params params = {Number(KM_TAG_ALGORITHM, KM_ALGORITHM_RSA), Number(KM_TAG_KEY_SIZE, bits),
                         Number(KM_TAG_RSA_PUBLIC_EXPONENT, 65537)};
  const keymaster_key_param_set_t set = SetOf(params);
  keymaster_key_blob_t key = {};
  const int32_t result = context.TivasKmGenerateKey(&set, &key, nullptr);
  Release(&key);
  return result;
}

int32_t Floor(unsigned bits) {
  BIGNUM* exponent = BN_new();
  RSA* key = RSA_new();
  BN_set_word(exponent, 65537);
  const int made = RSA_generate_key_ex(key, static_cast<int>(bits), exponent, nullptr);
  RSA_free(key);
  BN_free(exponent);
  return made == 1 ? 0 : -1;
}

double Seconds(int32_t (*call)(unsigned), unsigned bits, unsigned seed) {
  g_random.seed(seed);
  const auto start = std::chrono::steady_clock::now();
  if (call(bits) != 0) abort();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Each seed is run twice on both sides in turn, and the quickest of each counts.
void Pairs(benchmark::State& state) {
  Requests();
  const auto bits = static_cast<unsigned>(state.range(0));
  const auto seeds = static_cast<unsigned>(state.range(1));
  RAND_set_rand_method(&kSeeded);
  double library = 0, floor = 0;
  for (auto _ : state) {
    for (unsigned seed = 1; seed <= seeds; ++seed) {
      double best[2] = {1e9, 1e9};
      for (int run = 0; run < 2; ++run) {
        best[0] = std::min(best[0], Seconds(Library, bits, seed));
        best[1] = std::min(best[1], Seconds(Floor, bits, seed));
      }
      library += best[0];
      floor += best[1];
    }
  }
  RAND_set_rand_method(nullptr);
  state.counters["library_ms"] = library * 1e3 / seeds;
  state.counters["floor_ms"] = floor * 1e3 / seeds;
}

BENCHMARK(Pairs)
    ->Name("rsa")
    ->Args({2048, 5})
    ->Args({3072, 2})
    ->Args({4096, 2})
    ->Iterations(1)
    ->Repetitions(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace

}  // namespace bench

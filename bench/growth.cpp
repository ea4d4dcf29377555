// Does the time an entry takes grow with the number of entries?
#include <benchmark/benchmark.h>
#include <string.h>

#include "null_platform.h"

namespace bench {

namespace {

struct Values {
  const char* name;
  size_t size;       // bytes of each value; 0 for integers
  size_t max_added;  // beyond this, adding one by one moves gigabytes
};
constexpr Values kValues[] = {{"integers", 0, 100000}, {"16 B", 16, 10000}, {"1 KiB", 1024, 1000}};

Params Content(const benchmark::State& state, const Bytes& value) {
  return MakeParams(static_cast<size_t>(state.range(0)), value.empty() ? 0 : 1, value);
}

void Count(benchmark::State& state, uint64_t moved_before) {
  const auto entries = static_cast<double>(state.iterations() * state.range(0));
  state.counters["moved_per_entry"] = static_cast<double>(BytesMoved() - moved_before) / entries;
}

void Build(benchmark::State& state, size_t value_size) {
  const Bytes value(value_size, 0x42);
  const Params params = Content(state, value);
  const keymaster_key_param_set_t set = SetOf(params);
  const uint64_t moved = BytesMoved();
  for (auto _ : state) {
    uint8_t* out = nullptr;
    uint32_t length = 0;
    if (BuildKmParams(&set, &out, &length) != 0) state.SkipWithError("not built");
    free(out);
  }
  Count(state, moved);
}

// The least that any encoder does: a buffer of the final size, filled once.
void Floor(benchmark::State& state, size_t value_size) {
  const Bytes value(value_size, 0x42);
  const Params params = Content(state, value);
  for (auto _ : state) {
    auto* out = static_cast<uint8_t*>(malloc(8 + params.size() * (16 + value_size)));
    uint8_t* entry = out + 8;
    uint8_t* blob = entry + 16 * params.size();
    for (const keymaster_key_param_t& param : params) {
      memcpy(entry, &param, 16);
      entry += 16;
      if (value_size != 0) memcpy(blob, param.blob.data, value_size);
      blob += value_size;
    }
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
    free(out);
  }
}

void Add(benchmark::State& state, size_t value_size) {
  const Bytes value(value_size, 0x42);
  const Params params = Content(state, value);
  const uint64_t moved = BytesMoved();
  for (auto _ : state) {
    KmParams record;
    int32_t result = InitKmParams(&record);
    for (const keymaster_key_param_t& param : params) result |= AddKmParams(&record, &param);
    if (result != 0) state.SkipWithError("not added");
    FreeKmParams(&record);
  }
  Count(state, moved);
}

}  // namespace

void RegisterGrowth() {
  for (const Values& values : kValues) {
    for (int64_t n = 10; n <= 100000; n *= 10) {
      const std::string name = std::string("growth/") + values.name;
      benchmark::RegisterBenchmark((name + "/library").c_str(), Build, values.size)->Arg(n);
      benchmark::RegisterBenchmark((name + "/floor").c_str(), Floor, values.size)->Arg(n);
      if (static_cast<size_t>(n) <= values.max_added) {
        benchmark::RegisterBenchmark((name + "/one by one").c_str(), Add, values.size)->Arg(n);
      }
    }
  }
}

}  // namespace bench

// What does a request cost beyond the platform calls that it has to make, and what a long update?
#include <benchmark/benchmark.h>
#include <keymaster_tivas_context.h>
#include <keymaster_ts.h>
#include <limits.h>
#include <malloc.h>

#include "bench/null_platform.h"

namespace bench {

void RegisterMarshalling();

namespace {

void MakeRequest(benchmark::State& state, const test::Request& request, bool is_raw) {
  const Script script = Record(request);
  Play(&script);
  RepeatedRequest repeated(request);
  for (auto _ : state) {
    if (repeated.Run(is_raw ? &script : nullptr) != 0) {
      state.SkipWithError("the request failed");
    }
  }
  Play(nullptr);
}

test::Bytes UpdateInput(const benchmark::State& state) {
  return test::Bytes(static_cast<size_t>(state.range(0)) << 20, 0x42);
}

void UpdateLibrary(benchmark::State& state) {
  keymaster::KeymasterTivasContext context;
  const test::Bytes input = UpdateInput(state);
  const keymaster_blob_t blob = test::Blob(input);
  for (auto _ : state) {
    unsigned long consumed = 0;
    keymaster_blob_t output = {};
    if (context.TivasKmUpdate(1, nullptr, &blob, &consumed, nullptr, &output) != 0 ||
        output.data_length != input.size()) {
      state.SkipWithError("the update failed");
    }
    free(const_cast<uint8_t*>(output.data));
  }
}

void UpdateFloor(benchmark::State& state) {
  constexpr uint32_t kChunk = 0x80000;
  test::Bytes input = UpdateInput(state);
  for (auto _ : state) {
    void* params = malloc(4096);  // first, as in the library: the layout decides on the caches
    auto* output = static_cast<uint8_t*>(malloc(input.size()));
    for (size_t at = 0; at < input.size(); at += kChunk) {
      TEEC_Operation operation = {};
      operation.paramTypes = TEEC_PARAM_TYPES(TEEC_NONE, TEEC_MEMREF_TEMP_INPUT,
                                              TEEC_MEMREF_TEMP_INOUT, TEEC_MEMREF_TEMP_OUTPUT);
      operation.params[1].tmpref = {input.data() + at, kChunk};
      operation.params[2].tmpref = {params, 4096};
      operation.params[3].tmpref = {output + at, kChunk};
      if (RawCommand(km41::kCmdUpdate, &operation) != 0) state.SkipWithError("the calls failed");
    }
    free(output);
    free(params);
  }
}

}  // namespace

void RegisterRequests() {
  for (const test::Request& request : MeasuredRequests()) {
    const std::string name = std::string("request/") + request.name;
    benchmark::RegisterBenchmark((name + "/library").c_str(), MakeRequest, request, false);
    benchmark::RegisterBenchmark((name + "/floor").c_str(), MakeRequest, request, true);
  }
  for (const auto& [name, run] :
       {std::pair("bulk/library", UpdateLibrary), {"bulk/floor", UpdateFloor}}) {
    benchmark::RegisterBenchmark(name, run)->Arg(1)->Arg(16)->Arg(64)->Arg(256);
  }
}

}  // namespace bench

int main(int argc, char** argv) {
  // Memory once had from the kernel stays with the process: neither side of a pair then measures
  // the kernel's page faults.
  mallopt(M_MMAP_MAX, 0);
  mallopt(M_TRIM_THRESHOLD, INT_MAX);
  benchmark::Initialize(&argc, argv);
  if (Ts_Initcontext() != 0) return 1;
  bench::RegisterRequests();
  bench::RegisterMarshalling();
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

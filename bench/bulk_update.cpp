// What does a long update cost beyond its update commands, in time? (peak_memory.cpp: in memory)
#include <benchmark/benchmark.h>
#include <keymaster_tivas_context.h>

#include "null_platform.h"
#include "requests.h"

namespace bench {

namespace {

constexpr size_t kMiB = 1u << 20;
constexpr size_t kPiece = 0x80000;

int32_t Library(const Bytes& input) {
  static keymaster::KeymasterTivasContext context;
  const keymaster_blob_t blob = View(input);
  unsigned long consumed = 0;
  keymaster_blob_t output = {};
  const int32_t result = context.TivasKmUpdate(1, nullptr, &blob, &consumed, nullptr, &output);
  const bool whole = output.data_length == input.size();
  Release(&output);
  return whole ? result : -1;
}

int32_t Floor(const Bytes& input) {
  auto* output = static_cast<uint8_t*>(malloc(input.size()));
  int32_t result = 0;
  for (size_t at = 0; at < input.size(); at += kPiece) {
    result |= Raw(9, {Slot{}, Slot{TEEC_MEMREF_TEMP_INPUT, input.data() + at, kPiece}, Reply(4096),
                      Slot{TEEC_MEMREF_TEMP_OUTPUT, output + at, kPiece}});
  }
  free(output);
  return result;
}

void Run(benchmark::State& state, int32_t (*call)(const Bytes&)) {
  const Bytes input(static_cast<size_t>(state.range(0)) * kMiB, 0x42);
  // A TEE that leaves the buffers alone would be no measure: any real one reads and writes them.
  g_update = Update::kCopy;
  for (auto _ : state) {
    if (call(input) != 0) state.SkipWithError("the update failed");
  }
  g_update = Update::kReport;
}

}  // namespace

void RegisterBulkUpdate() {
  for (const auto& [name, call] : {std::pair("bulk/library", Library), {"bulk/floor", Floor}}) {
    benchmark::RegisterBenchmark(name, Run, call)->Arg(1)->Arg(16)->Arg(64)->Arg(256);
  }
}

}  // namespace bench

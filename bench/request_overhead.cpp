// What does a request cost beyond the platform calls that it has to make?
#include <benchmark/benchmark.h>

#include "requests.h"

namespace bench {

namespace {

void Run(benchmark::State& state, int32_t (*call)()) {
  for (auto _ : state) {
    if (call() != 0) state.SkipWithError("the request failed");
  }
}

}  // namespace

void RegisterRequestOverhead() {
  for (const Request& request : Requests()) {
    const std::string name = "request/" + request.name;
    benchmark::RegisterBenchmark((name + "/library").c_str(), Run, request.library);
    benchmark::RegisterBenchmark((name + "/floor").c_str(), Run, request.floor);
  }
}

}  // namespace bench

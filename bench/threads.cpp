// Does a lock of the library's own show when several threads send requests?
#include <benchmark/benchmark.h>

#include "requests.h"

namespace bench {

namespace {

void Run(benchmark::State& state, int32_t (*call)()) {
  for (auto _ : state) {
    if (call() != 0) state.SkipWithError("the request failed");
  }
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

void RegisterThreads() {
  const Request& begin = FindRequest("Begin");
  for (const auto& [name, call] :
       {std::pair("threads/library", begin.library), {"threads/floor", begin.floor}}) {
    benchmark::RegisterBenchmark(name, Run, call)
        ->Threads(1)
        ->Threads(2)
        ->Threads(4)
        ->Threads(8)
        ->UseRealTime();
  }
}

}  // namespace bench

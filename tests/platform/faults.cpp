#include "tests/platform/faults.h"

#include <atomic>

namespace test {
namespace {

struct Counter {
  std::atomic<int> calls{0}, fail_at{0};
  std::atomic<bool> and_later{false};
};

Counter g_counters[static_cast<size_t>(Call::kEnd)];

Counter& CounterOf(Call call) { return g_counters[static_cast<size_t>(call)]; }

}  // namespace

void FailCall(Call call, int nth, bool and_later) {
  CounterOf(call).calls = 0;
  CounterOf(call).fail_at = nth;
  CounterOf(call).and_later = and_later;
}

int CallCount(Call call) { return CounterOf(call).calls; }

void ClearFaults() {
  for (size_t i = 0; i < static_cast<size_t>(Call::kEnd); ++i) {
    FailCall(static_cast<Call>(i), 0);
  }
}

bool TakeFault(Call call) {
  Counter& counter = CounterOf(call);
  const int now = ++counter.calls;
  const int fail_at = counter.fail_at;
  return fail_at > 0 && (now == fail_at || (counter.and_later && now > fail_at));
}

}  // namespace test

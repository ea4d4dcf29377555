// Requests of all kinds at once. The scripted TA refuses an import of the wrong type, so that a
// wrapped import that marked a plain one beside it would show.
#include <gtest/gtest.h>

#include <thread>

#include "tests/sweep/scenario.h"

namespace test {
namespace {

constexpr size_t kThreads = 8, kRequestsPerThread = 2500;

TEST_F(TrackedTest, ThreadsServeMixedRequests) {
  InstallTa();
  std::vector<std::pair<const Request*, Outcome>> expected;
  for (const Request& request : Requests()) {
    if (request.name == std::string("Initialize")) continue;  // it replaces the context
    expected.emplace_back(&request, Perform(request));
  }
  const size_t blocks = LiveBlocks();
  std::vector<std::thread> threads;
  for (size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (size_t i = 0; i < kRequestsPerThread && !HasFailure(); ++i) {
        const auto& [request, outcome] = expected[(i + 4 * thread) % expected.size()];
        EXPECT_TRUE(Perform(*request) == outcome) << request->name;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(blocks, LiveBlocks());
}

}  // namespace
}  // namespace test

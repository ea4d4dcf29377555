// Requests of all kinds at once. The scripted TA refuses an import of the wrong type, so that a
// wrapped import that marked a plain one beside it would show.
#include <gtest/gtest.h>
#include <keymaster_ts.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/keymaster_test.h"
#include "tests/sweep/library_hooks.h"
#include "tests/sweep/requests.h"

namespace test {
namespace {

constexpr size_t kThreads = 8;
constexpr size_t kRequestsPerThread = 2500;

class Threads : public KeymasterTest {
 protected:
  void SetUp() override {
    HookLibrary();
    KeymasterTest::SetUp();
    InstallTa();
    for (const Request& request : Requests()) {
      if (!request.makes_context) requests_.push_back(&request);
    }
    std::stable_partition(requests_.begin(), requests_.end(), [](const Request* request) {
      return request->name.find("Import") != std::string::npos;
    });
    for (const Request* request : requests_) expected_.push_back(Run(*request));
  }

  static State Run(const Request& request) {
    Outputs outputs;
    const int32_t code = request.run(&outputs);
    State state = Describe(outputs);
    state['r'] = std::to_string(code);
    Release(&outputs);
    return state;
  }

  // Half of the requests are imports: they stand in front.
  void Work(size_t thread) {
    constexpr size_t kImports = 5;
    for (size_t i = 0; i < kRequestsPerThread; ++i) {
      const size_t pick =
          i % 2 == 0 ? (i / 2 + thread) % kImports : (i + thread) % requests_.size();
      if (Run(*requests_[pick]) != expected_[pick]) ++wrong_[pick];
    }
  }

  std::vector<const Request*> requests_;
  std::vector<State> expected_;
  std::atomic<int> wrong_[100] = {};
};

TEST_F(Threads, ServeMixedRequests) {
  const size_t blocks = LiveBlocks();
  std::vector<std::thread> threads;
  for (size_t i = 0; i < kThreads; ++i) threads.emplace_back([this, i] { Work(i); });
  for (std::thread& thread : threads) thread.join();
  for (size_t i = 0; i < requests_.size(); ++i) EXPECT_EQ(0, wrong_[i]) << requests_[i]->name;
  EXPECT_EQ(blocks, LiveBlocks());
  EXPECT_LT(kThreads * kRequestsPerThread, platform().opens.size());
}

}  // namespace
}  // namespace test

// What the tests of the TEE client share: a client of a TA, and what may not stay behind.
#ifndef TESTS_TEE_CLIENT_TEE_CLIENT_TEST_H
#define TESTS_TEE_CLIENT_TEE_CLIENT_TEST_H

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

#include "tests/ta/ta_client.h"
#include "tests/tee_client/test_app.h"

constexpr uint32_t kDead = TEEC_ERROR_TARGET_DEAD, kShort = TEEC_ERROR_SHORT_BUFFER;

inline Slot Value(uint32_t a, uint32_t b = 0, uint32_t type = TEEC_VALUE_INPUT) {
  return {type, {}, 0, a, b};
}

// A client of the test TA. After a command its slots hold what came back: whole buffers, and the
// sizes reported as their capacities.
struct Client {
  TEEC_Context context = {};
  TEEC_Session session = {};
  uint32_t origin = 0;
  Slot slots[4];
  explicit Client(uint32_t opened = 0) {
    EXPECT_EQ(TEEC_InitializeContext(nullptr, &context), 0u);
    EXPECT_EQ(Open(&session), opened);
  }
  ~Client() { TEEC_FinalizeContext(&context); }

  uint32_t Open(TEEC_Session* opened, const TEEC_UUID& app = kTestApp,
                TEEC_Operation* operation = nullptr) {
    return TEEC_OpenSession(&context, opened, &app, 7, nullptr, operation, &origin);
  }
  // Run runs a command on the client's session, or on another.
  uint32_t Run(uint32_t command, const std::vector<Slot>& given = {}, TEEC_Session* on = nullptr) {
    TEEC_Operation operation = {1, 0, {}, nullptr, 0};
    for (uint32_t i = 0; i < given.size(); ++i) {
      Slot& slot = slots[i] = given[i];
      slot.out = slot.in;
      slot.out.resize(std::max<size_t>(slot.in.size(), slot.capacity), '?');
      operation.paramTypes |= slot.type << (4 * i);
      operation.params[i].value = {slot.a, slot.b};
      if (slot.type < TEEC_MEMREF_TEMP_INPUT) continue;
      operation.params[i].tmpref = {slot.out.data(), static_cast<uint32_t>(slot.out.size())};
    }
    const uint32_t result =
        TEEC_InvokeCommand(on == nullptr ? &session : on, command, &operation, &origin);
    for (uint32_t i = 0; i < given.size(); ++i) {
      slots[i].capacity = operation.params[i].tmpref.size;
    }
    return result;
  }
};

inline std::vector<Str> Entries(const Str& folder) {
  std::vector<Str> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

// Zombies count.
inline std::vector<pid_t> Children(pid_t parent = getpid()) {
  std::vector<pid_t> found;
  for (const Str& name : Entries("/proc")) {
    std::ifstream file("/proc/" + name + "/stat");
    Str pid, comm, state;
    pid_t of = 0;
    if (file >> pid >> comm >> state >> of && of == parent) found.push_back(atoi(pid.c_str()));
  }
  return found;
}

class TeeClientTest : public testing::Test {
 protected:
  void SetUp() override {
    UseHost("process");
    for (const char* name : {"TEE_FAULT", "TEE_TRACE", "TEE_TIMEOUT_MS"}) {
      unsetenv(name);
    }
    const auto self = std::filesystem::read_symlink("/proc/self/exe");
    setenv("TEE_WORKER", (self.parent_path() / "test_worker").c_str(), 1);
  }
  // Nothing stays behind: neither a worker or what is left of it, nor a descriptor.
  void TearDown() override {
    EXPECT_EQ(Children(), std::vector<pid_t>());
    EXPECT_EQ(Entries("/proc/self/fd").size(), files_);
  }
  // The test TA runs in a worker, or in the caller's own process.
  static void UseHost(const char* host) { setenv("TEE_HOST", host, 1); }
  const size_t files_ = Entries("/proc/self/fd").size();
};

#endif  // TESTS_TEE_CLIENT_TEE_CLIENT_TEST_H

// The software TA behind its entry points: commands with made-up parameters, which may use the
// keys of fuzz/keys, what earlier commands replied, and the handles of operations that run. What
// the TA takes from its system is the same in each run.
//
// The input: command after command. A command is its number, a byte (1: its parameter types follow,
// else they are its usual ones) and its parameters: a value is two numbers, a reference is a source
// and what that takes. An output is its capacity, and what is in it at first where it is in/out.
#include <openssl/err.h>
#include <openssl/rand.h>
#include <sys/syscall.h>
#include <time.h>
#include <trusted_app.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "fuzz/input.h"
#include "ta/auth.h"
#include "tests/requests/commands.h"

namespace {

using fuzz::Bytes;
using fuzz::Check;
using fuzz::Input;
using fuzz::Params;
using namespace km41;  // the protocol's constants

constexpr long kSecondsSinceBoot = 1000;
uint8_t g_random = 0;

}  // namespace

// Randomness that repeats itself, a clock that stands, and files that need not last.
extern "C" {
int RAND_bytes(unsigned char* out, int size) {
  for (int i = 0; i < size; ++i) {
    out[i] = ++g_random;
  }
  return 1;
}
int RAND_priv_bytes(unsigned char* out, int size) { return RAND_bytes(out, size); }
int fsync(int) { return 0; }
int clock_gettime(clockid_t clock, timespec* now) {
  if (clock != CLOCK_BOOTTIME) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  *now = {kSecondsSinceBoot, 0};
  return 0;
}
}

namespace {

constexpr int kMostCommands = 12;
constexpr size_t kMostParams = 40;

// One parameter of a command, with memory of exactly its size.
struct Slot {
  Bytes bytes;
  uint32_t a = 0, b = 0;
};

// ---- What an input works with

namespace fs = std::filesystem;

// UsualTypes returns the parameter types that the library gives a command; 0 for no command's
// number.
uint32_t UsualTypes(uint32_t command) {
  const test::Command* found = test::FindCommand(command);
  return found == nullptr ? 0 : test::TypesOf(*found);
}

// The key of every device that the seeds and the keys come from, so that key blobs open.
constexpr char kDeviceKey[] = "the device key of the fuzz seeds";

// The TA on a state folder of its own, configured, with the keys of fuzz/keys, and what an input's
// commands left.
struct World {
  World() {
    std::string name = fs::exists("/dev/shm") ? "/dev/shm/fuzz-ta-XXXXXX" : "/tmp/fuzz-ta-XXXXXX";
    Check(mkdtemp(name.data()) != nullptr, "a state folder");
    folder = name;
    setenv("KEYMASTER_TA_STATE", folder.c_str(), 1);
    std::ofstream(folder / "device_key") << kDeviceKey;
    for (const fs::directory_entry& entry : fs::directory_iterator(KEYS)) {
      std::ifstream file(entry.path());
      keys[entry.path()].assign(std::istreambuf_iterator<char>(file), {});
    }
    Check(!keys.empty(), "keys");
    OpenSession();
    Configure();
  }
  ~World() { fs::remove_all(folder); }

  void OpenSession() {
    Check(kKeymasterTrustedApp.open_session(kKeymasterLoginMethod, 0, nullptr, &session) ==
              TEEC_SUCCESS,
          "a session");
  }

  void Configure() {
    Slot slots[4];
    slots[0].a = 110000;
    slots[0].b = 202101;
    Check(Invoke(kCmdConfigure, UsualTypes(kCmdConfigure), slots) == TEEC_SUCCESS,
          "a configuration");
  }

  // Invoke sends a command, and keeps its replies and its handle.
  TEEC_Result Invoke(uint32_t command, uint32_t types, Slot (&slots)[4]) {
    TaParam params[4];
    for (int i = 0; i < 4; ++i) {
      Bytes& bytes = slots[i].bytes;
      bytes.shrink_to_fit();
      params[i] = {bytes.empty() ? nullptr : bytes.data(), static_cast<uint32_t>(bytes.size()),
                   slots[i].a, slots[i].b};
    }
    changed_device |= command == kCmdConfigure || command == kCmdEarlyBootEnded ||
                      command == kCmdDeviceLocked || command == kCmdComputeSharedHmac;
    const TEEC_Result result = kKeymasterTrustedApp.invoke(session, command, types, params);
    if (result != TEEC_SUCCESS) return result;
    for (unsigned i = 0; i < 4; ++i) {
      if (TEEC_PARAM_TYPE_GET(types, i) >= TEEC_MEMREF_TEMP_OUTPUT) {
        Check(params[i].size <= slots[i].bytes.size(), "a reply fits its reference");
        slots[i].bytes.resize(params[i].size);
        replies.push_back(slots[i].bytes);
      }
    }
    if (command == kCmdBegin) handles.push_back(params[3].a | uint64_t{params[3].b} << 32);
    return result;
  }

  // HandleBytes returns the handle of an operation of this input; zeros before there is any.
  Bytes HandleBytes(size_t index) const {
    return test::Le64(handles.empty() ? 0 : handles[index % handles.size()]);
  }

  // Restore ends the operations that run and takes back what was stored.
  void Restore() {
    for (size_t i = 0; i < handles.size(); ++i) {
      Slot slots[4];
      slots[0].bytes = HandleBytes(i);
      Invoke(kCmdAbort, UsualTypes(kCmdAbort), slots);
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
      const std::string name = entry.path().filename();
      for (const char* record : {"deleted_", "usage_", "boot_state", "hmac_sharing_seed"}) {
        if (name.rfind(record, 0) == 0) fs::remove(entry);
      }
    }
    if (changed_device) Configure();
    // With the session goes its last error.
    kKeymasterTrustedApp.close_session(session);
    OpenSession();
    handles.clear();
    replies.clear();
    changed_device = false;
    g_random = 0;
  }

  fs::path folder;
  void* session = nullptr;
  std::map<std::string, Bytes> keys;
  std::vector<Bytes> replies;
  std::vector<uint64_t> handles;
  bool changed_device = false;
};

// ---- How an input is read

// An auth token without its HMAC gets it, and as its challenge, where that is all ones, the last
// operation's handle.
Bytes CompleteToken(const World& world, Bytes token) {
  constexpr size_t kSigned = 37;
  if (token.size() != kSigned) return token;
  if (std::all_of(&token[1], &token[9], [](uint8_t byte) { return byte == 0xFF; })) {
    const Bytes handle = world.HandleBytes(world.handles.size() - 1);
    std::copy(handle.begin(), handle.end(), &token[1]);
  }
  const auto mac = ta::SharedHmac(token);
  token.insert(token.end(), mac.begin(), mac.end());
  return token;
}

Bytes ReadParameterList(const World& world, Input* input) {
  Params params = fuzz::ReadParams(input, kMostParams);
  for (test::Param& param : params) {
    if (param.tag == static_cast<uint32_t>(KM_TAG_AUTH_TOKEN)) {
      param.value = CompleteToken(world, std::get<Bytes>(param.value));
    }
  }
  return test::TwoLists({}, params);
}

Bytes ReadBytes(const World& world, Input* input) {
  const std::vector<Bytes>& replies = world.replies;
  switch (input->U8()) {
    case 1:
      return std::next(world.keys.begin(), input->U8() % static_cast<int>(world.keys.size()))
          ->second;
    case 2: {
      const uint8_t index = input->U8();
      return replies.empty() ? Bytes() : replies[index % replies.size()];
    }
    case 3:
      return world.HandleBytes(input->U8());
    case 4:
      return ReadParameterList(world, input);
    case 5: {
      const Bytes challenge = input->Read(8);
      return test::Cat({challenge, CompleteToken(world, input->ReadSized())});
    }
    case 6:  // as what a keymaster shares of itself
      return replies.size() < 2 ? Bytes() : test::Cat({replies.end()[-2], replies.end()[-1]});
    default:
      return input->ReadSized();
  }
}

Slot ReadSlot(const World& world, Input* input, uint32_t type) {
  Slot slot;
  const bool is_output = type >= TEEC_MEMREF_TEMP_OUTPUT;
  const size_t capacity = is_output ? input->U16() % (kChainCapacity + 1) : 0;
  if (type == TEEC_MEMREF_TEMP_INPUT || type == TEEC_MEMREF_TEMP_INOUT) {
    slot.bytes = ReadBytes(world, input);
  }
  if (is_output) slot.bytes.resize(capacity);
  if (type >= TEEC_VALUE_INPUT && type <= TEEC_VALUE_INOUT) {
    slot.a = input->U32();
    slot.b = input->U32();
  }
  return slot;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World world;
  Input input(data, size);
  for (int i = 0; i < kMostCommands && !input.empty(); ++i) {
    const uint32_t command = input.U8();
    const uint32_t types = input.U8() == 1 ? input.U32() : UsualTypes(command);
    Slot slots[4];
    for (unsigned k = 0; k < 4; ++k) {
      slots[k] = ReadSlot(world, &input, TEEC_PARAM_TYPE_GET(types, k));
    }
    world.Invoke(command, types, slots);
  }
  Check(ERR_peek_error() == 0, "no libcrypto error is left behind");
  world.Restore();
  return 0;
}

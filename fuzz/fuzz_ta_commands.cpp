// The software TA behind its entry points: commands with made-up parameters, which may use keys of
// a pool, what earlier commands replied, and the handles of operations that run.
//
// The input: command after command. A command is its number, a byte (1: its parameter types follow,
// else they are its usual ones) and its parameters: a value is two numbers, a reference is a source
// and what that takes. An output is its capacity, and what is in it at first where it is in/out.
#include <openssl/err.h>

#include "fuzz/ta_world.h"
#include "ta/auth.h"
#include "wire/ta_protocol.h"

namespace {

using fuzz::Bytes;
using fuzz::Check;
using fuzz::Input;
using fuzz::Slot;
using fuzz::World;

constexpr int kMostCommands = 12;
constexpr size_t kMostParams = 40;

// An auth token without its HMAC gets it, and as its challenge, where that is all ones, the last
// operation's handle.
Bytes CompleteToken(const World& world, Bytes token) {
  constexpr size_t kSigned = 37;
  if (token.size() != kSigned) return token;
  if (std::all_of(&token[1], &token[9], [](uint8_t byte) { return byte == 0xFF; })) {
    const Bytes handle = fuzz::HandleBytes(world, world.handles.size() - 1);
    std::copy(handle.begin(), handle.end(), &token[1]);
  }
  const auto mac = ta::SharedHmac(token);
  token.insert(token.end(), mac.begin(), mac.end());
  return token;
}

Bytes ReadParameterList(const World& world, Input* input) {
  fuzz::Params params = fuzz::ReadParams(input, kMostParams);
  for (test::Param& param : params) {
    if (param.tag == static_cast<uint32_t>(KM_TAG_AUTH_TOKEN)) {
      param.value = CompleteToken(world, std::get<Bytes>(param.value));
    }
  }
  return test::TwoLists({}, params);
}

// The last two replies, as what a keymaster shares of itself.
Bytes LastReplies(const World& world) {
  const size_t count = world.replies.size();
  return count == 0   ? Bytes()
         : count == 1 ? world.replies[0]
                      : test::Cat({world.replies[count - 2], world.replies[count - 1]});
}

Bytes ReadBytes(const World& world, Input* input) {
  switch (input->U8()) {
    case 1:
      return world.pool[input->U8() % world.pool.size()];
    case 2: {
      const uint8_t index = input->U8();
      return world.replies.empty() ? Bytes() : world.replies[index % world.replies.size()];
    }
    case 3:
      return fuzz::HandleBytes(world, input->U8());
    case 4:
      return ReadParameterList(world, input);
    case 5: {
      const Bytes challenge = input->Read(8);
      return test::Cat({challenge, CompleteToken(world, input->ReadSized())});
    }
    case 6:
      return LastReplies(world);
    default:
      return input->ReadSized();
  }
}

void ReadSlot(const World& world, Input* input, uint32_t type, Slot* slot) {
  const size_t capacity =
      type >= TEEC_MEMREF_TEMP_OUTPUT ? input->U16() % (km41::kChainCapacity + 1) : 0;
  if (type == TEEC_MEMREF_TEMP_INPUT || type == TEEC_MEMREF_TEMP_INOUT) {
    slot->bytes = ReadBytes(world, input);
  }
  if (type >= TEEC_MEMREF_TEMP_OUTPUT) slot->bytes.resize(capacity);
  if (type >= TEEC_VALUE_INPUT && type <= TEEC_VALUE_INOUT) {
    slot->a = input->U32();
    slot->b = input->U32();
  }
}

void RunCommand(World* world, Input* input) {
  const uint32_t command = input->U8();
  const uint32_t types = input->U8() == 1 ? input->U32() : fuzz::UsualTypes(command);
  Slot slots[4];
  for (unsigned i = 0; i < 4; ++i) {
    ReadSlot(*world, input, TEEC_PARAM_TYPE_GET(types, i), &slots[i]);
  }
  world->changed_device |= command == km41::kCmdConfigure || command == km41::kCmdEarlyBootEnded ||
                           command == km41::kCmdDeviceLocked ||
                           command == km41::kCmdComputeSharedHmac;
  fuzz::Invoke(world, command, types, slots);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World& world = *new World(fuzz::MakeWorld());
  Input input(data, size);
  for (int i = 0; i < kMostCommands && !input.empty(); ++i) {
    RunCommand(&world, &input);
  }
  Check(ERR_peek_error() == 0, "no libcrypto error is left behind");
  fuzz::Restore(&world);
  return 0;
}

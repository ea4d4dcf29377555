// The software TA behind its entry points: commands with made-up parameters, which may use keys of
// a pool, what earlier commands replied, and the handles of operations that run.
//
// The input: command after command. A command is its number, a byte (1: its parameter types follow,
// else they are its usual ones) and its parameters: a value is two numbers, a reference is a source
// and what that takes. An output is its capacity, and what is in it at first where it is in/out.
#include <openssl/err.h>

#include "fuzz/ta_world.h"
#include "ta/hmac_sharing.h"

namespace {

using fuzz::Bytes;
using fuzz::Check;
using fuzz::Input;
using fuzz::Param;
using fuzz::World;

constexpr int kMostCommands = 12;
constexpr size_t kMostParams = 40;

// An auth token without its HMAC gets it, and as its challenge, where that is all ones, the last
// operation's handle.
Bytes CompleteToken(const World& world, Bytes token) {
  constexpr size_t kSigned = 37;
  if (token.size() != kSigned) return token;
  if (std::all_of(&token[1], &token[9], [](uint8_t byte) { return byte == 0xFF; })) {
    const Bytes handle = fuzz::HandleBytes(world, static_cast<uint8_t>(world.handles.size() - 1));
    std::copy(handle.begin(), handle.end(), &token[1]);
  }
  const auto mac = ta::SharedHmac(token);
  token.insert(token.end(), mac.begin(), mac.end());
  return token;
}

Bytes TakeParameterList(const World& world, Input* input) {
  const fuzz::ParamList list = fuzz::TakeParams(input, kMostParams);
  std::vector<fuzz::WireParam> wire;
  for (const keymaster_key_param_t& param : list.params) {
    if (!fuzz::HasBytes(param.tag)) {
      wire.push_back({param.tag, param.long_integer, {}});
      continue;
    }
    const Bytes value(param.blob.data, param.blob.data + param.blob.data_length);
    wire.push_back(
        {param.tag, 0, param.tag == KM_TAG_AUTH_TOKEN ? CompleteToken(world, value) : value});
  }
  return fuzz::Serialize(wire);
}

Bytes TakeBytes(const World& world, Input* input) {
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
      return TakeParameterList(world, input);
    case 5: {
      Bytes out = input->Take(8);
      const Bytes token = CompleteToken(world, input->TakeSized());
      out.insert(out.end(), token.begin(), token.end());
      return out;
    }
    case 6: {  // the last two replies, as what a keymaster shares of itself
      Bytes out;
      for (size_t i = world.replies.size() < 2 ? 0 : world.replies.size() - 2;
           i < world.replies.size(); ++i) {
        out.insert(out.end(), world.replies[i].begin(), world.replies[i].end());
      }
      return out;
    }
    default:
      return input->TakeSized();
  }
}

void TakeParam(const World& world, Input* input, uint32_t type, Param* param) {
  if (type >= TEEC_MEMREF_TEMP_OUTPUT) param->bytes.resize(input->U16() % 8193u);
  if (type == TEEC_MEMREF_TEMP_INPUT || type == TEEC_MEMREF_TEMP_INOUT) {
    const size_t capacity = param->bytes.size();
    param->bytes = TakeBytes(world, input);
    if (type == TEEC_MEMREF_TEMP_INOUT) param->bytes.resize(capacity);
  }
  if (type >= TEEC_VALUE_INPUT && type <= TEEC_VALUE_INOUT) {
    param->ta.a = input->U32();
    param->ta.b = input->U32();
  }
  param->Bind();
}

void RunCommand(World* world, Input* input) {
  const uint32_t command = input->U8();
  const uint32_t types = input->U8() == 1 ? input->U32() : fuzz::TypesOf(command);
  Param params[4];
  for (unsigned i = 0; i < 4; ++i) {
    TakeParam(*world, input, TEEC_PARAM_TYPE_GET(types, i), &params[i]);
  }
  world->changed_device |= command == 1 || command == 40 || command == 41 || command == 65;
  fuzz::Invoke(world, command, types, params);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World& world = *new World(fuzz::MakeWorld());
  Input input(data, size);
  for (int i = 0; i < kMostCommands && !input.empty(); ++i) RunCommand(&world, &input);
  Check(ERR_peek_error() == 0, "no libcrypto error is left behind");
  fuzz::Restore(&world);
  return 0;
}

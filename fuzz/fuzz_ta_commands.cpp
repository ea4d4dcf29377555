// The software TA behind its entry points: commands with made-up parameters, which may use keys of
// a pool, what earlier commands replied, and the handles of operations that run.
//
// The input: command after command. A command is its number, a byte (1: its parameter types follow,
// else they are its usual ones) and its parameters: a value is two numbers, a reference is a source
// and what that takes. An output is its capacity, and what is in it at first where it is in/out.
#include <dirent.h>
#include <dlfcn.h>
#include <hmac_sharing.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <params.h>
#include <state.h>
#include <sys/stat.h>
#include <trusted_app.h>
#include <unistd.h>

#include <map>
#include <string>

#include "fuzz/input.h"

namespace {

using fuzz::Bytes;
using fuzz::Check;
using fuzz::Input;

uint8_t g_random = 0;
int g_rsa_bits = 0;

template <typename Function>
Function Real(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// Randomness that repeats itself, RSA keys that are made once a size, and files that need not last.
extern "C" {
int RAND_bytes(unsigned char* out, int size) {
  for (int i = 0; i < size; ++i) out[i] = ++g_random;
  return 1;
}
int RAND_priv_bytes(unsigned char* out, int size) { return RAND_bytes(out, size); }
int fsync(int) { return 0; }
int EVP_PKEY_CTX_set_rsa_keygen_bits(EVP_PKEY_CTX* context, int bits) {
  g_rsa_bits = bits;
  return Real<decltype(&EVP_PKEY_CTX_set_rsa_keygen_bits)>("EVP_PKEY_CTX_set_rsa_keygen_bits")(
      context, bits);
}
int EVP_PKEY_keygen(EVP_PKEY_CTX* context, EVP_PKEY** key) {
  static auto& keys = *new std::map<int, EVP_PKEY*>();
  EVP_PKEY*& made = keys[g_rsa_bits];
  if (made == nullptr && Real<decltype(&EVP_PKEY_keygen)>("EVP_PKEY_keygen")(context, &made) != 1) {
    return 0;
  }
  EVP_PKEY_up_ref(made);
  *key = made;
  return 1;
}
}

namespace {

constexpr uint32_t kConfigure = 1, kGenerateKey = 2, kBegin = 8, kAbort = 11;
constexpr int kMostCommands = 12;
constexpr size_t kMostParams = 40;

// ---- The state folder

std::string& Folder() {
  static std::string folder;
  return folder;
}

void RemoveFiles(bool all) {
  DIR* dir = opendir(Folder().c_str());
  if (dir == nullptr) return;
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    const bool use = name.rfind("deleted_", 0) == 0 || name.rfind("usage_", 0) == 0;
    if (all || use) unlink((Folder() + "/" + name).c_str());
  }
  closedir(dir);
}

void RemoveFolder() {
  RemoveFiles(true);
  rmdir(Folder().c_str());
}

// The key of every device that the seeds come from, so that the key blobs among them open.
constexpr uint8_t kDeviceKey[33] = "the device key of the fuzz seeds";

void MakeFolder() {
  struct stat status {};
  Folder() = stat("/dev/shm", &status) == 0 ? "/dev/shm/fuzz-ta-XXXXXX" : "/tmp/fuzz-ta-XXXXXX";
  if (mkdtemp(Folder().data()) == nullptr) abort();
  setenv("KEYMASTER_TA_STATE", Folder().c_str(), 1);
  atexit(RemoveFolder);
  ta::ReplaceStateFile("device_key", ta::ByteView(kDeviceKey, 32));
}

// ---- Commands

// The usual parameter types of a command; 0 for a number that is none.
uint32_t TypesOf(uint32_t command) {
  constexpr uint32_t kIn = TEEC_MEMREF_TEMP_INPUT, kOut = TEEC_MEMREF_TEMP_OUTPUT,
                     kInOut = TEEC_MEMREF_TEMP_INOUT, kValue = TEEC_VALUE_INPUT;
  switch (command) {
    case 1:
    case 41:
      return kValue;
    case 2:
      return TEEC_PARAM_TYPES(kIn, 0, kOut, kOut);
    case 3:
    case 5:
    case 6:
    case 7:
      return TEEC_PARAM_TYPES(kIn, kIn, kOut, 0);
    case 4:
      return TEEC_PARAM_TYPES(kIn, kIn, kOut, kInOut);
    case 8:
      return TEEC_PARAM_TYPES(kIn, kIn, kOut, TEEC_VALUE_INOUT);
    case 9:
    case 10:
    case 39:
      return TEEC_PARAM_TYPES(kIn, kIn, kInOut, kOut);
    case 11:
    case 31:
      return kIn;
    case 64:
      return TEEC_PARAM_TYPES(kOut, kOut, 0, 0);
    case 65:
      return TEEC_PARAM_TYPES(kIn, kOut, 0, 0);
    case 66:
      return kOut;
    default:
      return 0;
  }
}

// One parameter, with memory of exactly its size.
struct Param {
  Bytes bytes;
  TaParam ta;
};

// World is what an input works with: the pool of keys, and what its commands left.
struct World {
  std::vector<Bytes> pool;
  std::vector<Bytes> replies;
  std::vector<uint64_t> handles;
  void* session = nullptr;
  bool changed_device = false;
};

Bytes HandleBytes(const World& world, uint8_t index) {
  Bytes out(8);
  if (world.handles.empty()) return out;
  const uint64_t handle = world.handles[index % world.handles.size()];
  for (size_t i = 0; i < 8; ++i) out[i] = static_cast<uint8_t>(handle >> (8 * i));
  return out;
}

// An auth token without its HMAC gets it, and as its challenge, where that is all ones, the last
// operation's handle.
Bytes CompleteToken(const World& world, Bytes token) {
  constexpr size_t kSigned = 37;
  if (token.size() != kSigned) return token;
  if (std::all_of(&token[1], &token[9], [](uint8_t byte) { return byte == 0xFF; })) {
    const Bytes handle = HandleBytes(world, static_cast<uint8_t>(world.handles.size() - 1));
    std::copy(handle.begin(), handle.end(), &token[1]);
  }
  const Bytes mac = ta::SharedHmac(token);
  token.insert(token.end(), mac.begin(), mac.end());
  return token;
}

Bytes TakeParameterList(const World& world, Input* input) {
  fuzz::ParamList list = fuzz::TakeParams(input, kMostParams);
  ta::ParamSet set;
  for (const keymaster_key_param_t& param : list.params) {
    const auto tag = static_cast<uint32_t>(param.tag);
    if (!fuzz::HasBytes(param.tag)) {
      set.Add(tag, fuzz::HasU64(param.tag) ? param.long_integer : param.integer);
      continue;
    }
    Bytes value(param.blob.data, param.blob.data + param.blob.data_length);
    set.AddBytes(tag, param.tag == KM_TAG_AUTH_TOKEN ? CompleteToken(world, value) : value);
  }
  return ta::SerializeTwoLists(ta::ParamSet(), set);
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
      return HandleBytes(world, input->U8());
    case 4:
      return TakeParameterList(world, input);
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
  param->bytes.shrink_to_fit();
  param->ta.buffer = param->bytes.empty() ? nullptr : param->bytes.data();
  param->ta.size = static_cast<uint32_t>(param->bytes.size());
}

TEEC_Result Invoke(World* world, uint32_t command, uint32_t types, Param (&params)[4]) {
  TaParam given[4];
  for (int i = 0; i < 4; ++i) given[i] = params[i].ta;
  const TEEC_Result result = kKeymasterTrustedApp.invoke(world->session, command, types, given);
  for (unsigned i = 0; i < 4; ++i) {
    const uint32_t type = TEEC_PARAM_TYPE_GET(types, i);
    params[i].ta = given[i];
    if (result != TEEC_SUCCESS || type < TEEC_MEMREF_TEMP_OUTPUT) continue;
    Check(given[i].size <= params[i].bytes.size(), "a reply fits its reference");
    params[i].bytes.resize(given[i].size);
    world->replies.push_back(params[i].bytes);
  }
  if (command == kBegin && result == TEEC_SUCCESS) {
    world->handles.push_back(given[3].a | uint64_t{given[3].b} << 32);
  }
  return result;
}

void RunCommand(World* world, Input* input) {
  const uint32_t command = input->U8();
  const uint32_t types = input->U8() == 1 ? input->U32() : TypesOf(command);
  Param params[4];
  for (unsigned i = 0; i < 4; ++i) {
    TakeParam(*world, input, TEEC_PARAM_TYPE_GET(types, i), &params[i]);
  }
  world->changed_device |= command == 1 || command == 40 || command == 41 || command == 65;
  Invoke(world, command, types, params);
}

// ---- The pool

void Configure(World* world) {
  Param params[4];
  params[0].ta.a = 110000;
  params[0].ta.b = 202101;
  Check(Invoke(world, kConfigure, TypesOf(kConfigure), params) == TEEC_SUCCESS, "a configuration");
}

void AddKey(World* world, const std::vector<std::pair<uint32_t, uint64_t>>& description) {
  ta::ParamSet set;
  for (const auto& [tag, value] : description) set.Add(tag, value);
  Param params[4];
  params[0].bytes = ta::SerializeTwoLists(set, ta::ParamSet());
  for (int i = 2; i < 4; ++i) params[i].bytes.resize(4096);
  for (Param& param : params) {
    param.ta.buffer = param.bytes.empty() ? nullptr : param.bytes.data();
    param.ta.size = static_cast<uint32_t>(param.bytes.size());
  }
  Check(Invoke(world, kGenerateKey, TypesOf(kGenerateKey), params) == TEEC_SUCCESS, "a pool key");
  world->pool.push_back(params[2].bytes);
}

World MakeWorld() {
  MakeFolder();
  World world;
  Check(kKeymasterTrustedApp.open_session(7, 0, nullptr, &world.session) == TEEC_SUCCESS,
        "a session");
  Configure(&world);
  const auto tag = [](keymaster_tag_t t) { return static_cast<uint32_t>(t); };
  const uint32_t algorithm = tag(KM_TAG_ALGORITHM), size = tag(KM_TAG_KEY_SIZE),
                 purpose = tag(KM_TAG_PURPOSE), padding = tag(KM_TAG_PADDING),
                 digest = tag(KM_TAG_DIGEST), mode = tag(KM_TAG_BLOCK_MODE),
                 min_mac = tag(KM_TAG_MIN_MAC_LENGTH), nonce = tag(KM_TAG_CALLER_NONCE),
                 free = tag(KM_TAG_NO_AUTH_REQUIRED);
  AddKey(&world, {{algorithm, KM_ALGORITHM_AES},
                  {size, 128},
                  {purpose, 0},
                  {purpose, 1},
                  {mode, 1},
                  {mode, 2},
                  {mode, 3},
                  {mode, 32},
                  {padding, 1},
                  {padding, 64},
                  {min_mac, 96},
                  {nonce, 1},
                  {free, 1}});
  AddKey(&world, {{algorithm, KM_ALGORITHM_TRIPLE_DES},
                  {size, 168},
                  {purpose, 0},
                  {purpose, 1},
                  {mode, 1},
                  {mode, 2},
                  {padding, 1},
                  {padding, 64},
                  {nonce, 1},
                  {free, 1}});
  AddKey(&world, {{algorithm, KM_ALGORITHM_HMAC},
                  {size, 128},
                  {purpose, 2},
                  {purpose, 3},
                  {digest, 4},
                  {min_mac, 64},
                  {free, 1}});
  AddKey(&world, {{algorithm, KM_ALGORITHM_EC},
                  {size, 256},
                  {purpose, 2},
                  {purpose, 3},
                  {digest, 0},
                  {digest, 2},
                  {digest, 4},
                  {free, 1}});
  AddKey(&world, {{algorithm, KM_ALGORITHM_RSA},
                  {size, 1024},
                  {tag(KM_TAG_RSA_PUBLIC_EXPONENT), 65537},
                  {purpose, 0},
                  {purpose, 1},
                  {purpose, 2},
                  {purpose, 3},
                  {purpose, 5},
                  {digest, 0},
                  {digest, 2},
                  {digest, 4},
                  {padding, 1},
                  {padding, 2},
                  {padding, 3},
                  {padding, 4},
                  {padding, 5},
                  {free, 1}});
  // Keys that ask for a user, limit their uses, or hang on the device's state.
  AddKey(&world, {{algorithm, KM_ALGORITHM_HMAC},
                  {size, 128},
                  {purpose, 2},
                  {purpose, 3},
                  {digest, 4},
                  {min_mac, 64},
                  {tag(KM_TAG_USER_SECURE_ID), 7},
                  {tag(KM_TAG_USER_AUTH_TYPE), 3}});
  AddKey(&world, {{algorithm, KM_ALGORITHM_AES},
                  {size, 256},
                  {purpose, 0},
                  {purpose, 1},
                  {mode, 32},
                  {padding, 1},
                  {min_mac, 128},
                  {tag(KM_TAG_USER_SECURE_ID), 7},
                  {tag(KM_TAG_USER_AUTH_TYPE), 1},
                  {tag(KM_TAG_AUTH_TIMEOUT), 1000}});
  AddKey(&world, {{algorithm, KM_ALGORITHM_HMAC},
                  {size, 128},
                  {purpose, 2},
                  {digest, 4},
                  {min_mac, 64},
                  {free, 1},
                  {tag(KM_TAG_MAX_USES_PER_BOOT), 1},
                  {tag(KM_TAG_UNLOCKED_DEVICE_REQUIRED), 1}});
  world.replies.clear();
  return world;
}

// Ends what runs and takes back what was stored.
void Restore(World* world) {
  for (size_t i = 0; i < world->handles.size(); ++i) {
    Param params[4];
    params[0].bytes = HandleBytes(*world, static_cast<uint8_t>(i));
    params[0].ta.buffer = params[0].bytes.data();
    params[0].ta.size = 8;
    Invoke(world, kAbort, TypesOf(kAbort), params);
  }
  RemoveFiles(false);
  if (world->changed_device) {
    unlink((Folder() + "/boot_state").c_str());
    Configure(world);
  }
  world->handles.clear();
  world->replies.clear();
  world->changed_device = false;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World& world = *new World(MakeWorld());
  g_random = 0;
  Input input(data, size);
  for (int i = 0; i < kMostCommands && !input.empty(); ++i) RunCommand(&world, &input);
  Check(ERR_peek_error() == 0, "no libcrypto error is left behind");
  Restore(&world);
  return 0;
}

#include "fuzz/ta_world.h"

#include <dirent.h>
#include <dlfcn.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <utility>

namespace {

uint8_t g_random = 0;

template <typename Function>
Function Real(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// Randomness that repeats itself, a clock that stands, RSA keys that are made once a size and
// exponent, and files that need not last.
extern "C" {
int RAND_bytes(unsigned char* out, int size) {
  for (int i = 0; i < size; ++i) out[i] = ++g_random;
  return 1;
}
int RAND_priv_bytes(unsigned char* out, int size) { return RAND_bytes(out, size); }
int fsync(int) { return 0; }
int clock_gettime(clockid_t clock, timespec* now) {
  if (clock != CLOCK_BOOTTIME) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  *now = {fuzz::kSecondsSinceBoot, 0};
  return 0;
}
int RSA_generate_key_ex(RSA* key, int bits, BIGNUM* e, BN_GENCB*) {
  static auto& keys = *new std::map<std::pair<int, BN_ULONG>, RSA*>();
  RSA*& made = keys[{bits, BN_get_word(e)}];
  if (made == nullptr) {
    RSA* fresh = RSA_new();
    if (Real<decltype(&RSA_generate_key_ex)>("RSA_generate_key_ex")(fresh, bits, e, nullptr) != 1) {
      RSA_free(fresh);
      return 0;
    }
    made = fresh;
  }
  const BIGNUM *n, *own_e, *d, *p, *q, *dmp1, *dmq1, *iqmp;
  RSA_get0_key(made, &n, &own_e, &d);
  RSA_get0_factors(made, &p, &q);
  RSA_get0_crt_params(made, &dmp1, &dmq1, &iqmp);
  return RSA_set0_key(key, BN_dup(n), BN_dup(own_e), BN_dup(d)) == 1 &&
         RSA_set0_factors(key, BN_dup(p), BN_dup(q)) == 1 &&
         RSA_set0_crt_params(key, BN_dup(dmp1), BN_dup(dmq1), BN_dup(iqmp)) == 1;
}
}

namespace fuzz {
namespace {

constexpr uint32_t kConfigure = 1, kGenerateKey = 2, kBegin = 8, kAbort = 11;

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
    const bool use = name.rfind("deleted_", 0) == 0 || name.rfind("usage_", 0) == 0 ||
                     name == "boot_state" || name == "hmac_sharing_seed";
    if (all || use) unlink((Folder() + "/" + name).c_str());
  }
  closedir(dir);
}

void RemoveFolder() {
  RemoveFiles(true);
  rmdir(Folder().c_str());
}

// The key of every device that the seeds come from, so that the key blobs among them open.
constexpr char kDeviceKey[] = "the device key of the fuzz seeds";

void MakeFolder() {
  struct stat status {};
  Folder() = stat("/dev/shm", &status) == 0 ? "/dev/shm/fuzz-ta-XXXXXX" : "/tmp/fuzz-ta-XXXXXX";
  if (mkdtemp(Folder().data()) == nullptr) abort();
  setenv("KEYMASTER_TA_STATE", Folder().c_str(), 1);
  atexit(RemoveFolder);
  std::ofstream(Folder() + "/device_key") << kDeviceKey;
}

}  // namespace

// ---- Commands

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

Bytes HandleBytes(const World& world, uint8_t index) {
  Bytes out(8);
  if (world.handles.empty()) return out;
  const uint64_t handle = world.handles[index % world.handles.size()];
  for (size_t i = 0; i < 8; ++i) out[i] = static_cast<uint8_t>(handle >> (8 * i));
  return out;
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

Bytes Serialize(const std::vector<WireParam>& params) {
  Bytes out(4);
  Bytes area;
  const auto append = [&out](uint64_t value, int size) {
    for (int i = 0; i < size; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
  };
  append(params.size(), 4);
  for (const WireParam& param : params) {
    append(static_cast<uint32_t>(param.tag), 8);
    append(HasBytes(param.tag) ? area.size() | uint64_t{param.bytes.size()} << 32 : param.number,
           8);
    area.insert(area.end(), param.bytes.begin(), param.bytes.end());
  }
  out.insert(out.end(), area.begin(), area.end());
  return out;
}

// ---- The pool

namespace {

void Configure(World* world) {
  Param params[4];
  params[0].ta.a = 110000;
  params[0].ta.b = 202101;
  Check(Invoke(world, kConfigure, TypesOf(kConfigure), params) == TEEC_SUCCESS, "a configuration");
}

void AddKey(World* world, const std::vector<std::pair<keymaster_tag_t, uint64_t>>& description) {
  std::vector<WireParam> list;
  for (const auto& [tag, value] : description) list.push_back({tag, value, {}});
  Param params[4];
  params[0].bytes = Serialize(list);
  for (int i = 2; i < 4; ++i) params[i].bytes.resize(4096);
  for (Param& param : params) param.Bind();
  Check(Invoke(world, kGenerateKey, TypesOf(kGenerateKey), params) == TEEC_SUCCESS, "a pool key");
  world->pool.push_back(params[2].bytes);
}

void OpenSession(World* world) {
  Check(kKeymasterTrustedApp.open_session(7, 0, nullptr, &world->session) == TEEC_SUCCESS,
        "a session");
}

}  // namespace

World MakeWorld() {
  MakeFolder();
  World world;
  OpenSession(&world);
  Configure(&world);
  constexpr keymaster_tag_t algorithm = KM_TAG_ALGORITHM, size = KM_TAG_KEY_SIZE,
                            purpose = KM_TAG_PURPOSE, padding = KM_TAG_PADDING,
                            digest = KM_TAG_DIGEST, mode = KM_TAG_BLOCK_MODE,
                            min_mac = KM_TAG_MIN_MAC_LENGTH, nonce = KM_TAG_CALLER_NONCE,
                            free = KM_TAG_NO_AUTH_REQUIRED;
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
                  {KM_TAG_RSA_PUBLIC_EXPONENT, 65537},
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
                  {KM_TAG_USER_SECURE_ID, 7},
                  {KM_TAG_USER_AUTH_TYPE, 3}});
  AddKey(&world, {{algorithm, KM_ALGORITHM_AES},
                  {size, 256},
                  {purpose, 0},
                  {purpose, 1},
                  {mode, 32},
                  {padding, 1},
                  {min_mac, 128},
                  {KM_TAG_USER_SECURE_ID, 7},
                  {KM_TAG_USER_AUTH_TYPE, 1},
                  {KM_TAG_AUTH_TIMEOUT, 1000}});
  AddKey(&world, {{algorithm, KM_ALGORITHM_HMAC},
                  {size, 128},
                  {purpose, 2},
                  {digest, 4},
                  {min_mac, 64},
                  {free, 1},
                  {KM_TAG_MAX_USES_PER_BOOT, 1},
                  {KM_TAG_UNLOCKED_DEVICE_REQUIRED, 1}});
  Restore(&world);
  return world;
}
void Restore(World* world) {
  for (size_t i = 0; i < world->handles.size(); ++i) {
    Param params[4];
    params[0].bytes = HandleBytes(*world, static_cast<uint8_t>(i));
    params[0].Bind();
    Invoke(world, kAbort, TypesOf(kAbort), params);
  }
  RemoveFiles(false);
  if (world->changed_device) Configure(world);
  // With the session goes its last error.
  kKeymasterTrustedApp.close_session(world->session);
  OpenSession(world);
  world->handles.clear();
  world->replies.clear();
  world->changed_device = false;
  g_random = 0;
}

}  // namespace fuzz

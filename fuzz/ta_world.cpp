#include "fuzz/ta_world.h"

#include <dlfcn.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <utility>

#include "tests/requests/commands.h"

namespace {

constexpr long kSecondsSinceBoot = 1000;
uint8_t g_random = 0;

}  // namespace

// Randomness that repeats itself, a clock that stands, RSA keys that are made once a size and
// exponent, and files that need not last.
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
int RSA_generate_key_ex(RSA* key, int bits, BIGNUM* e, BN_GENCB*) {
  static auto& keys = *new std::map<std::pair<int, BN_ULONG>, RSA*>();
  RSA*& made = keys[{bits, BN_get_word(e)}];
  if (made == nullptr) {
    static const auto real =
        reinterpret_cast<decltype(&RSA_generate_key_ex)>(dlsym(RTLD_NEXT, "RSA_generate_key_ex"));
    RSA* fresh = RSA_new();
    if (real(fresh, bits, e, nullptr) != 1) {
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

using namespace km41;

// ---- The state folder

namespace fs = std::filesystem;

fs::path& Folder() {
  static fs::path folder;
  return folder;
}

// What commands store, beside the device's keys.
void RemoveRecords() {
  for (const fs::directory_entry& entry : fs::directory_iterator(Folder())) {
    const std::string name = entry.path().filename();
    if (name.rfind("deleted_", 0) == 0 || name.rfind("usage_", 0) == 0 || name == "boot_state" ||
        name == "hmac_sharing_seed") {
      fs::remove(entry);
    }
  }
}

// The key of every device that the seeds come from, so that the key blobs among them open.
constexpr char kDeviceKey[] = "the device key of the fuzz seeds";

void MakeFolder() {
  std::string folder = fs::exists("/dev/shm") ? "/dev/shm/fuzz-ta-XXXXXX" : "/tmp/fuzz-ta-XXXXXX";
  Check(mkdtemp(folder.data()) != nullptr, "a state folder");
  Folder() = folder;
  setenv("KEYMASTER_TA_STATE", folder.c_str(), 1);
  atexit([] { fs::remove_all(Folder()); });
  std::ofstream(Folder() / "device_key") << kDeviceKey;
}

// ---- The pool

// The values of each tag of a key.
using Description = std::vector<std::pair<keymaster_tag_t, std::vector<uint64_t>>>;

// clang-format off
const Description kPool[] = {
    {{KM_TAG_ALGORITHM, {KM_ALGORITHM_AES}}, {KM_TAG_KEY_SIZE, {128}},
     {KM_TAG_PURPOSE, {KM_PURPOSE_ENCRYPT, KM_PURPOSE_DECRYPT}},
     {KM_TAG_BLOCK_MODE, {KM_MODE_ECB, KM_MODE_CBC, KM_MODE_CTR, KM_MODE_GCM}},
     {KM_TAG_PADDING, {KM_PAD_NONE, KM_PAD_PKCS7}}, {KM_TAG_MIN_MAC_LENGTH, {96}},
     {KM_TAG_CALLER_NONCE, {1}}, {KM_TAG_NO_AUTH_REQUIRED, {1}}},
    {{KM_TAG_ALGORITHM, {KM_ALGORITHM_TRIPLE_DES}}, {KM_TAG_KEY_SIZE, {168}},
     {KM_TAG_PURPOSE, {KM_PURPOSE_ENCRYPT, KM_PURPOSE_DECRYPT}},
     {KM_TAG_BLOCK_MODE, {KM_MODE_ECB, KM_MODE_CBC}},
     {KM_TAG_PADDING, {KM_PAD_NONE, KM_PAD_PKCS7}},
     {KM_TAG_CALLER_NONCE, {1}}, {KM_TAG_NO_AUTH_REQUIRED, {1}}},
    {{KM_TAG_ALGORITHM, {KM_ALGORITHM_HMAC}}, {KM_TAG_KEY_SIZE, {128}},
     {KM_TAG_PURPOSE, {KM_PURPOSE_SIGN, KM_PURPOSE_VERIFY}},
     {KM_TAG_DIGEST, {KM_DIGEST_SHA_2_256}}, {KM_TAG_MIN_MAC_LENGTH, {64}},
     {KM_TAG_NO_AUTH_REQUIRED, {1}}},
    {{KM_TAG_ALGORITHM, {KM_ALGORITHM_EC}}, {KM_TAG_KEY_SIZE, {256}},
     {KM_TAG_PURPOSE, {KM_PURPOSE_SIGN, KM_PURPOSE_VERIFY}},
     {KM_TAG_DIGEST, {KM_DIGEST_NONE, KM_DIGEST_SHA1, KM_DIGEST_SHA_2_256}},
     {KM_TAG_NO_AUTH_REQUIRED, {1}}},
    {{KM_TAG_ALGORITHM, {KM_ALGORITHM_RSA}}, {KM_TAG_KEY_SIZE, {1024}},
     {KM_TAG_RSA_PUBLIC_EXPONENT, {65537}},
     {KM_TAG_PURPOSE, {KM_PURPOSE_ENCRYPT, KM_PURPOSE_DECRYPT, KM_PURPOSE_SIGN, KM_PURPOSE_VERIFY,
                       KM_PURPOSE_WRAP_KEY}},
     {KM_TAG_DIGEST, {KM_DIGEST_NONE, KM_DIGEST_SHA1, KM_DIGEST_SHA_2_256}},
     {KM_TAG_PADDING, {KM_PAD_NONE, KM_PAD_RSA_OAEP, KM_PAD_RSA_PSS, KM_PAD_RSA_PKCS1_1_5_ENCRYPT,
                       KM_PAD_RSA_PKCS1_1_5_SIGN}},
     {KM_TAG_NO_AUTH_REQUIRED, {1}}},
    // Keys that ask for a user, limit their uses, or hang on the device's state.
    {{KM_TAG_ALGORITHM, {KM_ALGORITHM_HMAC}}, {KM_TAG_KEY_SIZE, {128}},
     {KM_TAG_PURPOSE, {KM_PURPOSE_SIGN, KM_PURPOSE_VERIFY}},
     {KM_TAG_DIGEST, {KM_DIGEST_SHA_2_256}}, {KM_TAG_MIN_MAC_LENGTH, {64}},
     {KM_TAG_USER_SECURE_ID, {7}}, {KM_TAG_USER_AUTH_TYPE, {HW_AUTH_PASSWORD | HW_AUTH_FINGERPRINT}}},
    {{KM_TAG_ALGORITHM, {KM_ALGORITHM_AES}}, {KM_TAG_KEY_SIZE, {256}},
     {KM_TAG_PURPOSE, {KM_PURPOSE_ENCRYPT, KM_PURPOSE_DECRYPT}},
     {KM_TAG_BLOCK_MODE, {KM_MODE_GCM}}, {KM_TAG_PADDING, {KM_PAD_NONE}},
     {KM_TAG_MIN_MAC_LENGTH, {128}}, {KM_TAG_USER_SECURE_ID, {7}},
     {KM_TAG_USER_AUTH_TYPE, {HW_AUTH_PASSWORD}}, {KM_TAG_AUTH_TIMEOUT, {1000}}},
    {{KM_TAG_ALGORITHM, {KM_ALGORITHM_HMAC}}, {KM_TAG_KEY_SIZE, {128}},
     {KM_TAG_PURPOSE, {KM_PURPOSE_SIGN}}, {KM_TAG_DIGEST, {KM_DIGEST_SHA_2_256}},
     {KM_TAG_MIN_MAC_LENGTH, {64}}, {KM_TAG_NO_AUTH_REQUIRED, {1}},
     {KM_TAG_MAX_USES_PER_BOOT, {1}}, {KM_TAG_UNLOCKED_DEVICE_REQUIRED, {1}}},
};
// clang-format on

void Configure(World* world) {
  Slot slots[4];
  slots[0].a = 110000;
  slots[0].b = 202101;
  Check(Invoke(world, kCmdConfigure, UsualTypes(kCmdConfigure), slots) == TEEC_SUCCESS,
        "a configuration");
}

void AddKey(World* world, const Description& description) {
  Params params;
  for (const auto& [tag, values] : description) {
    for (const uint64_t value : values) {
      params.emplace_back(tag, value);
    }
  }
  Slot slots[4];
  slots[0].bytes = test::TwoLists({}, params);
  slots[2].bytes.resize(kReplyCapacity);
  slots[3].bytes.resize(kReplyCapacity);
  Check(Invoke(world, kCmdGenerateKey, UsualTypes(kCmdGenerateKey), slots) == TEEC_SUCCESS,
        "a pool key");
  world->pool.push_back(slots[2].bytes);
}

void OpenSession(World* world) {
  Check(kKeymasterTrustedApp.open_session(kKeymasterLoginMethod, 0, nullptr, &world->session) ==
            TEEC_SUCCESS,
        "a session");
}

}  // namespace

uint32_t UsualTypes(uint32_t command) {
  const test::Command* found = test::FindCommand(command);
  return found == nullptr ? 0 : test::TypesOf(*found);
}

Bytes HandleBytes(const World& world, size_t index) {
  return test::Le64(world.handles.empty() ? 0 : world.handles[index % world.handles.size()]);
}

TEEC_Result Invoke(World* world, uint32_t command, uint32_t types, Slot (&slots)[4]) {
  TaParam params[4];
  for (int i = 0; i < 4; ++i) {
    Bytes& bytes = slots[i].bytes;
    bytes.shrink_to_fit();
    params[i] = {bytes.empty() ? nullptr : bytes.data(), static_cast<uint32_t>(bytes.size()),
                 slots[i].a, slots[i].b};
  }
  const TEEC_Result result = kKeymasterTrustedApp.invoke(world->session, command, types, params);
  if (result != TEEC_SUCCESS) return result;
  for (unsigned i = 0; i < 4; ++i) {
    if (TEEC_PARAM_TYPE_GET(types, i) >= TEEC_MEMREF_TEMP_OUTPUT) {
      Check(params[i].size <= slots[i].bytes.size(), "a reply fits its reference");
      slots[i].bytes.resize(params[i].size);
      world->replies.push_back(slots[i].bytes);
    }
  }
  if (command == kCmdBegin) world->handles.push_back(params[3].a | uint64_t{params[3].b} << 32);
  return result;
}

World MakeWorld() {
  MakeFolder();
  World world;
  OpenSession(&world);
  Configure(&world);
  for (const Description& description : kPool) {
    AddKey(&world, description);
  }
  Restore(&world);
  return world;
}

void Restore(World* world) {
  for (size_t i = 0; i < world->handles.size(); ++i) {
    Slot slots[4];
    slots[0].bytes = HandleBytes(*world, i);
    Invoke(world, kCmdAbort, UsualTypes(kCmdAbort), slots);
  }
  RemoveRecords();
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

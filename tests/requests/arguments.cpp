// What the requests' arguments are made of, and what becomes of their outputs.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <fstream>
#include <iterator>

#include "tests/platform/keys.h"
#include "tests/requests/requests.h"
#include "tests/requests/wire.h"

namespace test {
namespace {

// Keys of 1024 bits RSA and of P-256, made with openssl genpkey for these tests alone.

Bytes ReadKey(const std::string& name) {
  std::ifstream file(KEYS "/" + name, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

// Bytes without a pattern, so that no two pieces of them are alike.
Bytes Noise(uint32_t seed, size_t length) {
  Bytes out(length);
  for (uint8_t& byte : out) {
    seed = seed * 1664525u + 1013904223u;
    byte = static_cast<uint8_t>(seed >> 24);
  }
  return out;
}

Bytes Masked(Bytes key, const Bytes& mask) {
  for (size_t i = 0; i < mask.size(); ++i) {
    key[i] ^= mask[i];
  }
  return key;
}

std::map<std::string, Bytes> MakeSecrets() {
  const Bytes rsa = ReadKey("rsa.pkcs8"), ec = ReadKey("ec.pkcs8");
  std::map<std::string, Bytes> secrets = NumbersOf(ReadPkcs8(rsa).get());
  secrets.erase("n");
  secrets["scalar"] = NumbersOf(ReadPkcs8(ec).get())["scalar"];
  secrets["masked transit key"] = Noise(1, 32);
  secrets["transit key"] = Masked(Noise(1, 32), Noise(2, 32));
  secrets["finish output, unwrapped key"] = Noise(3, 32);
  secrets["update output"] = Noise(4, 16);
  secrets["finish input"] = Noise(5, 32);
  secrets["parameter"] = Noise(6, 32);
  return secrets;
}

}  // namespace

Fixture::Fixture()
    : secrets(MakeSecrets()),
      blob(Ramp(5, 48)),
      ec_blob(Text("an EC key")),
      client(secrets["parameter"]),
      input(secrets["finish input"]),
      // What a large finish keeps for its end begins with the input.
      long_input(Cat({Ramp(0, 68), secrets["finish input"], Ramp(0, 0x80000 - 99)})),
      rsa_pkcs8(ReadKey("rsa.pkcs8")),
      ec_pkcs8(ReadKey("ec.pkcs8")),
      mask(Noise(2, 32)),
      transit_key(secrets["transit key"]),
      iv(Wrapper().iv),
      description(Wrapper().Description()),
      payload(Cat({Wrapper().material, Wrapper().tag})),
      wrapper(Wrapper().Encode()),
      pkcs8_wrapper(Wrapper(KM_KEY_FORMAT_PKCS8).Encode()),
      encrypted_transit_key(Wrapper().transit_key),
      auth_token(AuthToken(5, 7, 2)),
      ec_params({{KM_TAG_ALGORITHM, KM_ALGORITHM_EC},
                 {KM_TAG_KEY_SIZE, 256},
                 {KM_TAG_APPLICATION_ID, secrets["parameter"]}}),
      rsa_params({{KM_TAG_ALGORITHM, KM_ALGORITHM_RSA},
                  {KM_TAG_KEY_SIZE, 512},
                  {KM_TAG_RSA_PUBLIC_EXPONENT, 65537}}),
      operation_params(
          {{KM_TAG_NONCE, Ramp(9, 12)}, {KM_TAG_ASSOCIATED_DATA, secrets["parameter"]}}),
      system_version({{KM_TAG_OS_VERSION, 130000}, {KM_TAG_OS_PATCHLEVEL, 202211}}),
      none({}) {}

const Fixture& fixture() {
  static const Fixture made;
  return made;
}

// ---- Outputs

namespace {

alignas(16) uint8_t g_garbage[16];
constexpr size_t kGarbageLength = 77;
constexpr uint8_t kGarbageByte = 0x5E;

template <typename T>
T* Garbage() {
  return reinterpret_cast<T*>(g_garbage);
}

void Append(const void* bytes, size_t length, std::string* content) {
  content->append(reinterpret_cast<const char*>(&length), sizeof(length));
  content->append(static_cast<const char*>(bytes), length);
}

class Observer {
 public:
  explicit Observer(const Blocks& blocks) : blocks_(blocks) {}

  // Tells of an array, of whose items `tell` tells, and releases it.
  template <typename Item, typename Tell>
  States Array(Item* items, size_t count, Tell tell) {
    if (items == Garbage<Item>()) return count == kGarbageLength ? kUntouched : kBroken;
    if (items == nullptr) return count == 0 ? kEmpty : kBroken;
    if (!blocks_.holds(items, count * sizeof(Item))) return kBroken;
    States state = kWhole;
    for (size_t i = 0; i < count; ++i) {
      state = tell(items[i]) == kBroken ? kBroken : state;
    }
    blocks_.release(items);
    return state;
  }

  States Data(const uint8_t* bytes, size_t length) {
    const auto tell = [](uint8_t) { return kWhole; };
    if (bytes != nullptr && bytes != g_garbage && blocks_.holds(bytes, length)) {
      Append(bytes, length, &content);
    }
    return Array(bytes, length, tell);
  }

  States Set(const keymaster_key_param_set_t& set) {
    return Array(set.params, set.length, [this](const keymaster_key_param_t& param) {
      const auto tag = static_cast<uint32_t>(param.tag);
      Append(&tag, sizeof(tag), &content);
      if (IsByteValued(tag)) {
        const States state = Data(param.blob.data, param.blob.data_length);
        return state == kEmpty ? kWhole : state;
      }
      const uint64_t value = NumberOf(param);
      Append(&value, sizeof(value), &content);
      return kWhole;
    });
  }

  States Characteristics(const keymaster_key_characteristics_t& both) {
    const States hw = Set(both.hw_enforced), sw = Set(both.sw_enforced);
    const bool whole = (hw | sw) == (kWhole | kEmpty);  // one list may well have nothing in it
    return hw == sw ? hw : whole ? kWhole : kBroken;
  }

  States Chain(const keymaster_cert_chain_t& chain) {
    return Array(chain.entries, chain.entry_count, [this](const keymaster_blob_t& entry) {
      return Data(entry.data, entry.data_length) == kWhole ? kWhole : kBroken;
    });
  }

  // All that stands in fixed places.
  States Numbers(Outputs* o) {
    if (o->token.parameters_verified != &o->params) return kBroken;
    Outputs garbage;
    garbage.token.parameters_verified = o->token.parameters_verified = nullptr;
    Append(&o->number, sizeof(o->number), &content);
    Append(&o->token, sizeof(o->token), &content);
    Append(o->hmac, sizeof(o->hmac), &content);  // the TEE itself writes to it, whatever the result
    const bool untouched =
        o->number == garbage.number && memcmp(&o->token, &garbage.token, sizeof(o->token)) == 0;
    return untouched ? kUntouched : kWhole;
  }

  std::string content;

 private:
  const Blocks& blocks_;
};

}  // namespace

Outputs::Outputs()
    : key_blob{g_garbage, kGarbageLength},
      data{g_garbage, kGarbageLength},
      params{Garbage<keymaster_key_param_t>(), kGarbageLength},
      chain{Garbage<keymaster_blob_t>(), kGarbageLength} {
  characteristics = {params, params};
  memset(&number, kGarbageByte, sizeof(number));
  memset(&token, kGarbageByte, sizeof(token));
  memset(hmac, kGarbageByte, sizeof(hmac));
  token.parameters_verified = &params;
}

const Blocks kPlainBlocks = {[](const void*, size_t) { return true; },
                             [](const void* block) { free(const_cast<void*>(block)); }};

Observed Observe(Outputs* outputs, const Blocks& blocks) {
  Observer observer(blocks);
  Observed observed;
  observed.states[kKeyBlob] =
      observer.Data(outputs->key_blob.key_material, outputs->key_blob.key_material_size);
  observed.states[kCharacteristics] = observer.Characteristics(outputs->characteristics);
  observed.states[kData] = observer.Data(outputs->data.data, outputs->data.data_length);
  observed.states[kParams] = observer.Set(outputs->params);
  observed.states[kChain] = observer.Chain(outputs->chain);
  observed.states[kNumbers] = observer.Numbers(outputs);
  observed.content = std::move(observer.content);
  return observed;
}

// ---- Contracts

namespace {

constexpr States U = kUntouched, E = kEmpty, W = kWhole;

// clang-format off
const std::vector<Contract> kContracts = {
    //                                                    success prepare tee  reply 1  2    copying
    {"TivasKmGenerateKey",           kKeyBlob,            W,      U,      U,    U,     E,    U|E},
    {"TivasKmGenerateKey",           kCharacteristics,    W|E,    U,      U,    U,     U|E,  U|E},
    {"TivasKmImportKey",             kKeyBlob,            W,      U,      U,    U,     E,    U|E},
    {"TivasKmImportKey",             kCharacteristics,    W|E,    U,      U,    U,     U|E,  U|E},
    {"TivasKmImportWrappedKeyNew",   kKeyBlob,            W,      U,      U,    U,     E,    U|E},
    {"TivasKmImportWrappedKeyNew",   kCharacteristics,    W|E,    U,      U,    U,     U|E,  U|E},
    {"TivasKmExportKey",             kData,               W,      E,      E,    E,     0,    E},
    {"TivasKmGetKeyCharacteristics", kCharacteristics,    W|E,    U,      U,    E,     0,    E},
    // An empty reply means that no upgrade is needed.
    {"TivasKmUpgradeKey",            kKeyBlob,            W|U,    U,      U,    U,     0,    U},
    // Untouched only when it cannot even be cleared.
    {"TivasKmAttestKey",             kChain,              W,      U,      U,    E,     0,    U|E},
    {"TivasKmBegin",                 kParams,             W|E,    E,      E,    E,     0,    E},
    {"TivasKmBegin",                 kNumbers,            W,      U,      U,    U,     0,    U},
    {"TivasKmUpdate",                kParams,             W|E,    E,      E,    E,     E,    E},
    {"TivasKmUpdate",                kData,               W|E,    E,      E,    E,     E,    E},
    {"TivasKmUpdate",                kNumbers,            W|U,    U,      U,    U,     U,    U},
    {"TivasKmFinish",                kParams,             W|E,    E,      E,    E,     E,    E},
    {"TivasKmFinish",                kData,               W|E,    E,      E,    E,     E,    E},
    {"TivasKmFinishNew",             kParams,             W|E,    E,      E,    E,     E,    E},
    {"TivasKmFinishNew",             kData,               W|E,    E,      E,    E,     E,    E},
    {"TivasKmFinishLarge",           kParams,             W|E,    E,      E,    E,     E,    E},
    {"TivasKmFinishLarge",           kData,               W,      E,      E,    E,     E,    E},
    // The three steps that end in a finish leave their output alone until that clears it.
    {"TivasKmUnwrappedKey",          kData,               W|E,    U|E,    U|E,  0,     E,    E},
    {"TransitKeyRsaDecrypt",         kData,               W|E,    U|E,    U|E,  0,     E,    E},
    {"WrappedKeyAesGcmDecrypt",      kData,               W|E,    U|E,    U|E,  0,     E,    E},
    {"DecryptTransitKeyMaterial",    kData,               W|E,    E,      E,    0,     E,    E},
    // The set that the token points at, which begins empty; what was verified stays.
    {"TivasVerifyAuthorization",     kParams,             W|E,    E,      E,    E,     W,    W|E},
    {"TivasVerifyAuthorization",     kNumbers,            W,      U,      U,    U,     U,    U},
    {"TivascomputeSharedHmac",       kData,               W|E,    E,      E,    E,     0,    E},
};
// clang-format on

}  // namespace

const std::vector<Contract>& Contracts() { return kContracts; }

States Allowed(std::string_view method, Output output, States Contract::*failure) {
  for (const Contract& contract : kContracts) {
    if (contract.output == output && contract.method == method) return contract.*failure;
  }
  return kUntouched;
}

}  // namespace test

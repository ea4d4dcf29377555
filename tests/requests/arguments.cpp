// What the requests' arguments are made of, and what becomes of their outputs.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <algorithm>

#include "tests/platform/keys.h"
#include "tests/requests/requests.h"
#include "tests/requests/wire.h"

namespace test {
namespace {

// Keys of 1024 bits RSA and of P-256, made with openssl genpkey for these tests alone.
constexpr char kRsaPkcs8[] =
    "30820276020100300d06092a864886f70d0101010500048202603082025c02010002818100d59046d70a571d0628"
    "a4e051c5dc91f16ba238f4bbabc29c6450d14c1a0b63591f8bcc0a0ce9809016a4cfd9ade5a5a083ae5b3ce42195"
    "575e1e4146167e0ca170ef3d624fb6ccdb1eb55f525394dfd6cb29e1f6a7f2ab888d6aca45ae195d0edf93a2b975"
    "abcacc3805520df49a6b4c46b83bdcc149a43c21175e19b3c99aa902030100010281806b7968fd0d1a1be41e8e22"
    "c9642e854f9e600c13b56251d4cc7313711de63f3ff9ad2ba89f28df6723ce1b3fabd0d7123952845dd75cc3402d"
    "80424f1840a4efaa83980412e04cd9e0fcd070cd858ca2d97b409df495b7adc5a7c1f4d7558c3a03296121b4e7e5"
    "bf420e805fd7d640eadf5d8186a9a68c40dedecd621e005fd1024100ea1d18724e3377cb7bb49bb1b114ada18424"
    "4a1d17848182355a648ca81cfa41331eb558196487bd1cfa87cba67c7c41226b16414ef6d3df22aa90801d54e3cd"
    "024100e9875e4f3351b430f9d8dd2ae67e58f7faca3e69f9b79d4596280333c5258141e04fda7ca0d3fb95bb6869"
    "9a750107a1f8bede954c33d41de926db7ca3db6e4d02404647b9c106ccd8979369629bf346fbe0d2e47a0345be17"
    "8ad92d6ba5f609cceea9c3fc389856df90dc143193e744d3a0520ec7bd8f50f5c5b488739ca2318bb9024044bb93"
    "f5699c5d95a0a3c48cb0e475191f9651026dfe2deae2440a953d2c49bbf2e26de30a8ef9d85b1d631f93da66bdb4"
    "71b11f6e1b3f0e42a62e29a42c9c6d0241008494c2be49fad13c9d7513c75ee34bdebfaa34b1801fa0c988c99ac0"
    "82a3762d3a8a05f608f8d7fe9d5eee04153f19a6ea6d04c0182de20dc77618d1dc8155c4";
constexpr char kEcPkcs8[] =
    "308187020100301306072a8648ce3d020106082a8648ce3d030107046d306b020101042091415988eedc282fb2d8"
    "80a29dea730a89d63dda2832974e00e2a93487d922a3a14403420004a6785ee3c828e02383fcbe99c4402a97203b"
    "6d4d915d1f14317c9e4afe17ed6589bc8100f44f4d3a281578faaaa8896e31ff019ef599b89ea77afca876a89225";

Bytes FromHex(const std::string& digits) {
  Bytes out;
  for (size_t i = 0; i < digits.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return out;
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
  const Bytes rsa = FromHex(kRsaPkcs8), ec = FromHex(kEcPkcs8);
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

Wrapper OfPkcs8() {
  Wrapper wrapper;
  wrapper.format = KM_KEY_FORMAT_PKCS8;
  return wrapper;
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
      rsa_pkcs8(FromHex(kRsaPkcs8)),
      ec_pkcs8(FromHex(kEcPkcs8)),
      mask(Noise(2, 32)),
      transit_key(secrets["transit key"]),
      iv(Wrapper().iv),
      description(Wrapper().Description()),
      payload(Cat({Wrapper().material, Wrapper().tag})),
      wrapper(Wrapper().Encode()),
      pkcs8_wrapper(OfPkcs8().Encode()),
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

Args::Args(Outputs* outputs)
    : params(fixture().operation_params.get()),
      unwrapping_params(fixture().none.get()),
      key(&fixture().blob.key),
      mask(&fixture().mask.key),
      wrapped(&fixture().wrapper.key),
      client_id(&fixture().client.blob),
      app_data(&fixture().client.blob),
      input(&fixture().input.blob),
      signature(&fixture().input.blob),
      iv(&fixture().iv.blob),
      description(&fixture().description.blob),
      sharing_params(fixture().input.blob.data),
      key_blob(&outputs->key_blob),
      characteristics(&outputs->characteristics),
      data(&outputs->data),
      out_params(&outputs->params),
      chain(&outputs->chain),
      number(&outputs->number),
      token(&outputs->token),
      hmac1(outputs->hmac[0]),
      hmac2(outputs->hmac[1]) {}

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

  // All that stands in fixed places: each item is written as a whole or not at all.
  States Numbers(const Outputs& o) {
    const auto* own = o.token.parameters_verified;
    if (own != &o.params) return kBroken;
    const Outputs garbage;
    States state = kUntouched;
    const auto look = [&](const void* at, const void* before, size_t size) {
      if (memcmp(at, before, size) != 0) state = kWhole;
      Append(at, size, &content);
    };
    look(&o.number, &garbage.number, sizeof(o.number));
    look(&o.token.challenge, &garbage.token.challenge, sizeof(uint64_t));
    look(&o.token.timestamp, &garbage.token.timestamp, sizeof(uint64_t));
    look(&o.token.security_level, &garbage.token.security_level, sizeof(uint32_t));
    look(o.token.mac, garbage.token.mac, sizeof(o.token.mac));
    // The TEE itself writes to these, whatever the result.
    Append(o.hmac, sizeof(o.hmac), &content);
    return state;
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
  observed.states[kNumbers] = observer.Numbers(*outputs);
  observed.content = std::move(observer.content);
  return observed;
}

}  // namespace test

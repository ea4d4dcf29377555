// Drives the software TA by its entry points, with wire buffers built by hand.
#ifndef TESTS_TA_TA_CLIENT_H
#define TESTS_TA_TA_CLIENT_H

#include <gtest/gtest.h>
#include <hardware/keymaster_defs.h>
#include <stdlib.h>
#include <trusted_app.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/requests/wire.h"
#include "wire/ta_protocol.h"

using namespace km41;  // the protocol's constants

using Str = std::string;

using P = test::Param;
using Ps = test::Params;

constexpr uint32_t kEncrypt = KM_PURPOSE_ENCRYPT, kDecrypt = KM_PURPOSE_DECRYPT,
                   kSign = KM_PURPOSE_SIGN, kVerify = KM_PURPOSE_VERIFY;
inline const P kNoPadding = {KM_TAG_PADDING, KM_PAD_NONE}, kSha1 = {KM_TAG_DIGEST, KM_DIGEST_SHA1},
               kSha256 = {KM_TAG_DIGEST, KM_DIGEST_SHA_2_256},
               kPkcs1 = {KM_TAG_PADDING, KM_PAD_RSA_PKCS1_1_5_SIGN};
inline const Ps kOaep = {{KM_TAG_PADDING, KM_PAD_RSA_OAEP}, kSha1};

// The description of a key for anybody's use.
inline Ps Key(uint32_t algorithm, uint32_t purpose, const Ps& rest) {
  return Ps{{KM_TAG_ALGORITHM, algorithm}, {KM_TAG_PURPOSE, purpose}} + rest;
}
inline const P k128 = {KM_TAG_KEY_SIZE, 128};
inline const Ps kEcb = {{KM_TAG_BLOCK_MODE, KM_MODE_ECB}, kNoPadding};
inline const Ps kGcmMode = {{KM_TAG_BLOCK_MODE, KM_MODE_GCM}, kNoPadding};
inline const Ps kAes = Key(KM_ALGORITHM_AES, kEncrypt, kEcb + k128);
inline const Ps kGcm =
    Key(KM_ALGORITHM_AES, kEncrypt, kGcmMode + k128 + P(KM_TAG_MIN_MAC_LENGTH, 104));
inline const Ps kHmac =
    Key(KM_ALGORITHM_HMAC, kSign, {k128, kSha256, {KM_TAG_MIN_MAC_LENGTH, 128}});
inline const Ps kEc = Key(KM_ALGORITHM_EC, kSign, {{KM_TAG_EC_CURVE, KM_EC_CURVE_P_256}, kSha256});
inline const Ps kRsa = kOaep + kNoPadding + kPkcs1 + P(KM_TAG_KEY_SIZE, 512) +
                       P(KM_TAG_RSA_PUBLIC_EXPONENT, 65537) +
                       P(KM_TAG_DIGEST, KM_DIGEST_SHA_2_384) + P(KM_TAG_DIGEST, KM_DIGEST_NONE);
inline const Ps kRsaSign = Key(KM_ALGORITHM_RSA, kSign, kRsa);

// The description with its parameters of the change's tag replaced by it.
inline Ps With(const Ps& base, const P& change) {
  Ps out;
  for (const P& p : base) {
    if (p.tag != change.tag) out.push_back(p);
  }
  return out + change;
}

inline Str ToStr(const test::Bytes& bytes) { return Str(bytes.begin(), bytes.end()); }

inline Str Le(uint64_t value, int size) { return ToStr(test::LittleEndian(value, size)); }

inline Str Hex(const Str& digits) {
  Str out;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    out += static_cast<char>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16));
  }
  return out;
}

inline Str Be(uint64_t value, int size) {
  const Str little = Le(value, size);
  return Str(little.rbegin(), little.rend());
}

inline Str Flipped(Str bytes, size_t at) {
  bytes[at] = static_cast<char>(bytes[at] ^ 1);
  return bytes;
}

// The two-list form, everything in the second list.
inline Str Wire(const Ps& params) { return ToStr(test::TwoLists({}, params)); }

constexpr uint32_t Km(keymaster_error_t error) { return static_cast<uint32_t>(error); }

// A parameter of a command as the test wants it; out holds the reply.
struct Slot {
  uint32_t type = TEEC_NONE;
  Str in = {};
  uint32_t capacity = 0;
  uint32_t a = 0, b = 0;
  Str out = {};
};
inline Slot In(Str bytes) { return {TEEC_MEMREF_TEMP_INPUT, std::move(bytes)}; }
inline Slot Out(uint32_t capacity) { return {TEEC_MEMREF_TEMP_OUTPUT, {}, capacity}; }
inline Slot InOut(Str in) { return {TEEC_MEMREF_TEMP_INOUT, std::move(in), 4096}; }

// The TA's commands, by whichever way they reach it.
struct Commands {
  Slot slots[4];
  Commands() = default;
  virtual ~Commands() = default;
  Commands(const Commands&) = delete;
  Commands& operator=(const Commands&) = delete;
  virtual uint32_t Run(uint32_t command, Slot s0 = {}, Slot s1 = {}, Slot s2 = {},
                       Slot s3 = {}) = 0;

  uint32_t Configure(uint32_t os_version, uint32_t patchlevel) {
    return Run(kCmdConfigure, {TEEC_VALUE_INPUT, {}, 0, os_version, patchlevel});
  }

  Str blob;  // of the last key made
  uint32_t Generate(const Ps& description) {
    return Keep(Run(kCmdGenerateKey, In(Wire(description)), {}, Out(4096), Out(4096)));
  }
  uint32_t Import(const Ps& description, const Str& material, char type = 1) {
    return Keep(
        Run(kCmdImportKey, In(Wire(description)), In(material), Out(4096), InOut(Str(1, type))));
  }

  uint64_t handle = 0;
  uint32_t Begin(uint32_t purpose, const Ps& params) {
    const uint32_t result =
        Run(kCmdBegin, In(blob), In(Wire(params)), Out(4096), {TEEC_VALUE_INOUT, {}, 0, purpose});
    if (result == 0) handle = slots[3].a | static_cast<uint64_t>(slots[3].b) << 32;
    return result;
  }

  // An operation that ends as soon as it has begun.
  uint32_t TryBegin(uint32_t purpose, const Ps& params) {
    const uint32_t result = Begin(purpose, params);
    return result == 0 ? Run(kCmdAbort, In(Le(handle, 8))) : result;
  }

  Str output;  // of the operation so far
  uint32_t Update(const Str& input, const Ps& params = {}) {
    return Add(Run(kCmdUpdate, In(Wire(params)), In(input), InOut(Le(handle, 8)), Out(4096)));
  }
  uint32_t Finish(const Str& signature = {}, const Ps& params = {}) {
    const Str packed = ToStr(test::FinishInput({}, test::Text(signature)));
    return Add(Run(kCmdFinish, In(Wire(params)), In(packed), InOut(Le(handle, 8)), Out(4096)));
  }
  // A whole operation, fed in pieces.
  uint32_t Operate(uint32_t purpose, const Ps& params, const Str& input, size_t piece,
                   const Str& signature = {}) {
    output.clear();
    uint32_t result = Begin(purpose, params);
    for (size_t at = 0; result == 0 && at < input.size(); at += piece) {
      result = Update(input.substr(at, piece));
    }
    return result == 0 ? Finish(signature) : result;
  }

 private:
  uint32_t Keep(uint32_t result) {
    if (result == 0) blob = slots[2].out;
    return result;
  }
  uint32_t Add(uint32_t result) {
    if (result == 0) output += slots[3].out;
    return result;
  }
};

struct Ta : Commands {
  void* session = nullptr;
  Ta() {
    TaParam params[4];
    params[0].a = 5;
    EXPECT_EQ(kKeymasterTrustedApp.open_session(kKeymasterLoginMethod, TEEC_VALUE_OUTPUT, params,
                                                &session),
              0u);
    EXPECT_EQ(params[0].a, 0u);  // an ordinary session
  }
  ~Ta() override { kKeymasterTrustedApp.close_session(session); }

  // Runs a command; each buffer is exactly as large as it claims.
  uint32_t Run(uint32_t command, Slot s0 = {}, Slot s1 = {}, Slot s2 = {}, Slot s3 = {}) override {
    Slot* given[] = {&s0, &s1, &s2, &s3};
    std::vector<uint8_t> memory[4];
    TaParam params[4];
    uint32_t types = 0;
    for (uint32_t i = 0; i < 4; ++i) {
      slots[i] = *given[i];
      types |= slots[i].type << (4 * i);
      memory[i].assign(slots[i].in.begin(), slots[i].in.end());
      memory[i].resize(std::max<size_t>(slots[i].in.size(), slots[i].capacity));
      memory[i].shrink_to_fit();
      params[i].size = static_cast<uint32_t>(memory[i].size());
      params[i].buffer = params[i].size == 0 ? nullptr : memory[i].data();
      params[i].a = slots[i].a;
      params[i].b = slots[i].b;
    }
    const uint32_t result = kKeymasterTrustedApp.invoke(session, command, types, params);
    for (uint32_t i = 0; i < 4; ++i) {
      slots[i].a = params[i].a;
      slots[i].b = params[i].b;
      if (result != 0) continue;
      EXPECT_LE(params[i].size, memory[i].size());
      slots[i].out.assign(memory[i].begin(), memory[i].begin() + params[i].size);
    }
    return result;
  }
};

constexpr uint32_t kOsVersion = 110000;
constexpr uint32_t kPatchlevel = 202111;

// A keymaster instance: the TA on a state folder of its own.
struct Instance : Ta {
  explicit Instance(bool configures = true) {
    EXPECT_NE(mkdtemp(folder.data()), nullptr);
    setenv("KEYMASTER_TA_STATE", folder.c_str(), 1);
    EXPECT_EQ(configures ? Configure(kOsVersion, kPatchlevel) : 0u, 0u);
  }
  ~Instance() { std::filesystem::remove_all(folder); }
  Str folder = testing::TempDir() + "ta_test_XXXXXX";
};

struct TaTest : testing::Test {
  Instance ta;
};

#endif  // TESTS_TA_TA_CLIENT_H

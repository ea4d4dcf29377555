// The TA that serves the requests, and what both sides know.
#include "tests/sweep/scripted_ta.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <memory>

#include "tests/sweep/library_hooks.h"
#include "tests/sweep/requests.h"

namespace test {
namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

Bytes Number(const Key& key, const char* name) {
  BIGNUM* number = nullptr;
  if (EVP_PKEY_get_bn_param(key.get(), name, &number) != 1) abort();
  Bytes out(static_cast<size_t>(BN_num_bytes(number)));
  BN_bn2bin(number, out.data());
  BN_free(number);
  return out;
}

Bytes Pkcs8(const Key& key) {
  PKCS8_PRIV_KEY_INFO* info = EVP_PKEY2PKCS8(key.get());
  unsigned char* der = nullptr;
  const int length = i2d_PKCS8_PRIV_KEY_INFO(info, &der);
  const Bytes out(der, der + length);
  OPENSSL_free(der);
  PKCS8_PRIV_KEY_INFO_free(info);
  return out;
}

// Bytes without a pattern, so that no two pieces of them are alike.
Bytes Noise(uint32_t seed, size_t length) {
  Bytes out(length);
  for (uint8_t& byte : out)
    byte = static_cast<uint8_t>((seed = seed * 1664525u + 1013904223u) >> 24);
  return out;
}

Bytes Der(std::initializer_list<uint8_t> tag, const Bytes& content) {
  const auto length = static_cast<uint32_t>(content.size());
  const auto low = static_cast<uint8_t>(length);
  Bytes head = {low};
  if (length > 127) head = {0x82, static_cast<uint8_t>(length >> 8), low};
  return Cat({Bytes(tag), head, content});
}

// A wrapper of a raw AES key with a user secure id and the auth token of a fingerprint.
Bytes Wrapper() {
  Bytes token(69);
  token[25] = 2;
  const Bytes list =
      Cat({Der({0xA2}, Der({2}, {32})), Der({0xA3}, Der({2}, {1, 0})),
           Der({0xBF, 0x83, 0x76}, Der({2}, {7})), Der({0xBF, 0x87, 0x6A}, Der({4}, token))});
  const Bytes description = Der({0x30}, Cat({Der({2}, {3}), Der({0x30}, list)}));
  return Der({0x30}, Cat({Der({2}, {0}), Der({4}, Ramp(1, 256)), Der({4}, Ramp(9, 12)), description,
                          Der({4}, Ramp(77, 32)), Der({4}, Ramp(3, 16))}));
}

bool Holds(const Bytes& bytes, int64_t tag) {
  const Bytes wire = Le32(static_cast<uint32_t>(tag));
  return std::search(bytes.begin(), bytes.end(), wire.begin(), wire.end()) != bytes.end();
}

// The import of an unwrapped key is known by the wrapper's auth token, that of a generated one by
// the exponent that was asked for.
bool AcceptsImport(const Invocation& invocation) {
  const Bytes& params = invocation.params[0].in;
  const Bytes& characteristics = invocation.params[3].in;
  const uint8_t other = Holds(params, KM_TAG_RSA_PUBLIC_EXPONENT) ? 0 : 1;
  const uint8_t type = Holds(params, KM_TAG_AUTH_TOKEN) ? 2 : other;
  return !characteristics.empty() && characteristics[0] == type;
}

std::map<int, Bytes> Write(const Invocation& invocation) {
  const Fixture& f = fixture();
  switch (invocation.command) {
    case 2:
    case 4:
      return {{2, f.blob}, {3, f.traits}};
    case 3:
      return {{2, f.traits}};
    case 5:
      return {{2, invocation.params[0].in == f.ec_blob ? f.ec_public : f.rsa_public}};
    case 6:
      return {{2, f.chain}};
    case 7:
      return {{2, f.blob}};
    case 8:
      return {{2, f.params}};
    case 9:
      return {{2, f.params}, {3, f.update_output}};
    case 10:
      // Only the decryption of a transit key sends no parameters.
      if (invocation.params[0].buffer == nullptr) return {{3, f.masked_transit}};
      return {{2, f.params}, {3, f.unwrapped}};
    case 39:
      return {{2, f.params}, {3, Ramp(1, 64)}};
    case 64:
      return {{0, Ramp(1, 32)}, {1, Ramp(2, 32)}};
    case 65:
      return {{1, Ramp(3, 32)}};
    case 66:
      return {{0, Cat({Le32(7), Le32(120), Le32(8), Text("FuncName")})}};
    default:
      return {};
  }
}

Reply Serve(const Invocation& invocation) {
  TaScript& script = ta();
  const int index = script.answers++;
  const auto written = Write(invocation);
  if (script.record != nullptr) {
    script.record->push_back({invocation.command, written, {}});
    for (int i = 0; i < 4; ++i) script.record->back().capacity[i] = invocation.params[i].size;
  }
  Reply reply = Reply::Ok();
  if (invocation.command == 4 && !AcceptsImport(invocation)) reply = Reply::Fail(kInputError);
  if (index == script.failing) reply = Reply::Fail(kTaError);
  for (const auto& [param, bytes] : written) reply.Out(param, bytes);
  if (invocation.command == 8) reply.Value(3, 0x11223344, 0x55667788);
  if (index == script.bent) script.bend(&reply);
  return reply;
}

Fixture MakeFixture() {
  Fixture f;
  const Key rsa(EVP_RSA_gen(1024), &EVP_PKEY_free);
  const Key ec(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  f.rsa_pkcs8 = Pkcs8(rsa);
  f.ec_pkcs8 = Pkcs8(ec);
  const char* const secret_numbers[] = {
      "d", "rsa-factor1", "rsa-factor2", "rsa-exponent1", "rsa-exponent2", "rsa-coefficient1"};
  for (const char* name : secret_numbers) f.secrets[name] = Number(rsa, name);
  f.secrets["scalar"] = Number(ec, "priv");
  f.secrets["masked transit key"] = f.masked_transit = Noise(1, 32);
  f.mask = Noise(2, 32);
  f.transit = f.masked_transit;
  for (size_t i = 0; i < f.mask.size(); ++i) f.transit[i] ^= f.mask[i];
  f.secrets["transit key"] = f.transit;
  f.secrets["finish output, unwrapped key"] = f.unwrapped = Noise(3, 32);
  f.secrets["update output"] = f.update_output = Noise(4, 16);
  f.wrapper = Wrapper();
  f.blob = Ramp(5, 48);
  f.ec_blob = Text("an EC key");
  f.traits = Cat(
      {WireList({Entry(KM_TAG_PURPOSE, 5), BytesEntry(KM_TAG_APPLICATION_ID, 0, 4)}),
       WireList({Entry(KM_TAG_CREATION_DATETIME, 9), BytesEntry(KM_TAG_APPLICATION_DATA, 4, 3)}),
       Text("appdata")});
  f.params = Cat(
      {WireList({BytesEntry(KM_TAG_NONCE, 0, 12), Entry(KM_TAG_MAC_LENGTH, 128)}), Ramp(40, 12)});
  f.chain = Cat({Le32(2), Le32(3), Text("abc"), Le32(5), Text("defgh")});
  f.rsa_public = Cat({Le32(1), Le32(0), Le32(64), Le32(3), Ramp(129, 64), {1, 0, 1}});
  const Bytes x = Number(ec, "qx");
  const Bytes y = Number(ec, "qy");
  f.ec_public = Cat({Le32(3), Le32(256), Le32(static_cast<uint32_t>(x.size())),
                     Le32(static_cast<uint32_t>(y.size())), x, y});
  return f;
}

}  // namespace

const Fixture& fixture() {
  static const Fixture f = MakeFixture();
  return f;
}

const keymaster_key_param_set_t* OperationParams() {
  static ParamSet set({{KM_TAG_NONCE, Ramp(9, 12)}, {KM_TAG_ASSOCIATED_DATA, Ramp(1, 20)}});
  return set.get();
}

TaScript& ta() {
  thread_local TaScript script;
  return script;
}

void InstallTa() {
  for (const uint32_t command : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 31, 39, 40, 41, 64, 65, 66}) {
    platform().On(command, Serve);
  }
}

void WatchFixtureSecrets() {
  for (const auto& [label, secret] : fixture().secrets) WatchFor(label, secret);
}

}  // namespace test

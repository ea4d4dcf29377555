// The TA that serves the requests, and what both sides know.
#include <algorithm>
#include <memory>

#include "tests/platform/keys.h"
#include "tests/sweep/library_hooks.h"
#include "tests/sweep/requests.h"

namespace test {
namespace {

// Bytes without a pattern, so that no two pieces of them are alike.
Bytes Noise(uint32_t seed, size_t length) {
  Bytes out(length);
  for (uint8_t& byte : out) {
    byte = static_cast<uint8_t>((seed = seed * 1664525u + 1013904223u) >> 24);
  }
  return out;
}

// A wrapper of a key in that format with a user secure id and the auth token of a fingerprint.
Bytes Wrapper(uint8_t format) {
  const Bytes description = {0x30, 98,   2, 1,    format, 0x30, 93, 0xA2, 3,    2,    1,
                             32,   0xA3, 4, 2,    2,      1,    0,  0xBF, 0x83, 0x76, 3,
                             2,    1,    7, 0xBF, 0x87,   0x6A, 71, 4,    69};
  Bytes token(69);
  token[25] = 2;
  return Cat({{0x30, 0x82, 1, 0xAD, 2, 1, 0, 4, 0x82, 1, 0},
              Ramp(1, 256),
              {4, 12},
              Ramp(9, 12),
              description,
              token,
              {4, 32},
              Ramp(77, 32),
              {4, 16},
              Ramp(3, 16)});
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
  const SeenParam& first = invocation.params[0];
  if (invocation.command == 5 && first.in == f.ec_blob) return f.ec_public;
  // Only the decryption of a transit key sends no parameters.
  if (invocation.command == 10 && first.buffer == nullptr) return f.transit_finish;
  const Bytes in_pkcs8 = {0x30, 98, 2, 1, KM_KEY_FORMAT_PKCS8};  // a description's beginning
  const auto at = std::search(first.in.begin(), first.in.end(), in_pkcs8.begin(), in_pkcs8.end());
  if (invocation.command == 10 && at != first.in.end()) return f.pkcs8_finish;
  const auto answer = f.answers.find(invocation.command);
  return answer == f.answers.end() ? std::map<int, Bytes>() : answer->second;
}

Reply Serve(const Invocation& invocation) {
  TaScript& script = ta();
  const int index = static_cast<int>(script.answers.size());
  const auto written = Write(invocation);
  script.answers.push_back({invocation.command, written, {}});
  for (int i = 0; i < 4; ++i) script.answers.back().capacity[i] = invocation.params[i].size;
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
  const Pkey rsa = NewRsaKey(1024), ec = NewEcKey(NID_X9_62_prime256v1);
  f.rsa_pkcs8 = Pkcs8(rsa.get());
  f.ec_pkcs8 = Pkcs8(ec.get());
  f.secrets = NumbersOf(rsa.get());
  f.secrets.erase("n");
  auto ec_numbers = NumbersOf(ec.get());
  f.secrets["scalar"] = ec_numbers["scalar"];
  const Bytes masked = Noise(1, 32), unwrapped = Noise(3, 32), update_output = Noise(4, 16);
  f.transit = masked;
  f.mask = Noise(2, 32);
  for (size_t i = 0; i < f.mask.size(); ++i) f.transit[i] ^= f.mask[i];
  f.input = Noise(5, 32);
  f.secrets["finish input"] = f.input;
  f.secrets["masked transit key"] = masked;
  f.secrets["transit key"] = f.transit;
  f.secrets["finish output, unwrapped key"] = unwrapped;
  f.secrets["update output"] = update_output;
  f.wrapper = Wrapper(KM_KEY_FORMAT_RAW);
  f.pkcs8_wrapper = Wrapper(KM_KEY_FORMAT_PKCS8);
  f.pkcs8_finish = {{3, f.ec_pkcs8}};
  f.blob = Ramp(5, 48);
  f.ec_blob = Text("an EC key");

  const Bytes x = ec_numbers["x"], y = ec_numbers["y"];
  f.ec_public = {{2, Cat({Le32(3), Le32(256), Le32(static_cast<uint32_t>(x.size())),
                          Le32(static_cast<uint32_t>(y.size())), x, y})}};
  f.transit_finish = {{3, masked}};
  const Bytes rsa_public = Cat({Le32(1), Le32(0), Le32(64), Le32(3), Ramp(129, 64), {1, 0, 1}});
  const Bytes traits = Cat(
      {WireList({Entry(KM_TAG_PURPOSE, 5), BytesEntry(KM_TAG_APPLICATION_ID, 0, 4)}),
       WireList({Entry(KM_TAG_CREATION_DATETIME, 9), BytesEntry(KM_TAG_APPLICATION_DATA, 4, 3)}),
       Text("appdata")});
  const Bytes params = Cat(
      {WireList({BytesEntry(KM_TAG_NONCE, 0, 12), Entry(KM_TAG_MAC_LENGTH, 128)}), Ramp(40, 12)});
  const Bytes chain = Cat({Le32(2), Le32(3), Text("abc"), Le32(5), Text("defgh")});
  f.answers = {{2, {{2, f.blob}, {3, traits}}},
               {3, {{2, traits}}},
               {4, {{2, f.blob}, {3, traits}}},
               {5, {{2, rsa_public}}},
               {6, {{2, chain}}},
               {7, {{2, f.blob}}},
               {8, {{2, params}}},
               {9, {{2, params}, {3, update_output}}},
               {10, {{2, params}, {3, unwrapped}}},
               {39, {{2, params}, {3, Ramp(1, 64)}}},
               {64, {{0, Ramp(1, 32)}, {1, Ramp(2, 32)}}},
               {65, {{1, Ramp(3, 32)}}},
               {66, {{0, Cat({Le32(7), Le32(120), Le32(8), Text("FuncName")})}}}};
  return f;
}

}  // namespace

const Fixture& fixture() {
  static const Fixture f = MakeFixture();
  return f;
}

TaScript& ta() {
  thread_local TaScript script;
  return script;
}

void InstallTa() {
  for (uint32_t command = 1; command <= 66; ++command) platform().On(command, Serve);
}

}  // namespace test

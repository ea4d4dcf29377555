// What travels between the library and the TA, built by hand: lists of parameters, replies, and the
// inputs of operations. Numbers are little-endian.
#ifndef TESTS_REQUESTS_WIRE_H
#define TESTS_REQUESTS_WIRE_H

#include <string>
#include <vector>

#include "tests/platform/bytes.h"

namespace test {

// ---- Lists of parameters

// The tags that define a key go to the first list.
constexpr uint32_t kFirstListTags[] = {0x10000002, 0x1000000A, 0x1000012D, 0x20000001,
                                       0x20000004, 0x20000005, 0x20000006, 0x30000003,
                                       0x500000C8, 0x70000007, 0x7000012E, 0x7000012F};

using Params = std::vector<Param>;
inline Params operator+(Params a, const Params& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
inline Params operator+(Params a, Param b) {
  a.push_back(std::move(b));
  return a;
}

// AppendList writes a count and entries; the bytes of values go to the blob area.
inline void AppendList(const Params& params, Bytes* list, Bytes* area) {
  const auto append = [list](const Bytes& bytes) {
    list->insert(list->end(), bytes.begin(), bytes.end());
  };
  append(Le32(static_cast<uint32_t>(params.size())));
  for (const Param& param : params) {
    if (!IsByteValued(param.tag)) {
      append(Entry(param.tag, std::get<uint64_t>(param.value)));
      continue;
    }
    const Bytes& bytes = std::get<Bytes>(param.value);
    append(BytesEntry(param.tag, static_cast<uint32_t>(area->size()),
                      static_cast<uint32_t>(bytes.size())));
    area->insert(area->end(), bytes.begin(), bytes.end());
  }
}
// OneList is a reply of output parameters.
inline Bytes OneList(const Params& params) {
  Bytes list, area;
  AppendList(params, &list, &area);
  return Cat({list, area});
}
// TwoLists is what goes to the TA, and a reply of characteristics: first the hardware's.
inline Bytes TwoLists(const Params& first, const Params& second) {
  Bytes lists, area;
  AppendList(first, &lists, &area);
  AppendList(second, &lists, &area);
  return Cat({lists, area});
}

// ---- Replies

// PublicKey is the reply to an export: modulus and exponent of RSA, or x and y of EC.
inline Bytes PublicKey(uint32_t algorithm, uint32_t bits, const Bytes& first, const Bytes& second) {
  return Cat({Le32(algorithm), Le32(bits), Le32(static_cast<uint32_t>(first.size())),
              Le32(static_cast<uint32_t>(second.size())), first, second});
}

inline Bytes CertificateChain(const std::vector<Bytes>& certificates) {
  Bytes out = Le32(static_cast<uint32_t>(certificates.size()));
  for (const Bytes& certificate : certificates) {
    out = Cat({out, Le32(static_cast<uint32_t>(certificate.size())), certificate});
  }
  return out;
}

inline Bytes VerificationToken(uint64_t challenge, uint64_t timestamp, uint32_t security_level,
                               const Bytes& mac) {
  return Cat({Le64(challenge), Le64(timestamp), Bytes(8), Le32(security_level), Bytes(4), mac});
}

// ErrorRecord is what the TA says of its last failure; it may lie about the length of the name.
inline Bytes ErrorRecord(uint32_t code, uint32_t line, uint32_t length, const Bytes& function) {
  return Cat({Le32(code), Le32(line), Le32(length), function});
}

// ---- Inputs

// AuthToken is one of a user, with the authenticator type in the device's order, unsigned.
inline Bytes AuthToken(uint64_t challenge, uint64_t user, uint32_t authenticator_type) {
  return Cat({{0}, Le64(challenge), Le64(user), Le64(0), Le32(authenticator_type), Bytes(40)});
}

inline Bytes FinishInput(const Bytes& input, const Bytes& signature) {
  return Cat({{0},
              Le32(static_cast<uint32_t>(input.size())),
              input,
              {1},
              Le32(static_cast<uint32_t>(signature.size())),
              signature});
}

// ---- Wrapped keys

// Der is one element with its length; tag may have more than one byte.
inline Bytes Der(const Bytes& tag, std::initializer_list<Bytes> parts) {
  const Bytes content = Cat(parts);
  const auto length = static_cast<uint8_t>(content.size());
  const auto high = static_cast<uint8_t>(content.size() >> 8);
  const Bytes lengths = content.size() < 0x80    ? Bytes{length}
                        : content.size() < 0x100 ? Bytes{0x81, length}
                                                 : Bytes{0x82, high, length};
  return Cat({tag, lengths, content});
}

// A wrapper of an AES key of 256 bits for the user 7. What is encrypted is the TA's affair.
struct Wrapper {
  explicit Wrapper(uint8_t key_format = KM_KEY_FORMAT_RAW) : format(key_format) {}
  uint8_t format;
  Bytes transit_key = Ramp(1, 256);
  Bytes iv = Ramp(9, 12);
  Bytes auth_token = AuthToken(0, 0, 2);
  Bytes material = Ramp(77, 32);
  Bytes tag = Ramp(3, 16);
  Bytes Description() const {
    const Bytes list =
        Der({0x30}, {Der({0xA2}, {{2, 1, KM_ALGORITHM_AES}}), Der({0xA3}, {{2, 2, 1, 0}}),
                     Der({0xBF, 0x83, 0x76}, {{2, 1, 7}}),
                     Der({0xBF, 0x87, 0x6A}, {Der({4}, {auth_token})})});
    return Der({0x30}, {{2, 1, format}, list});
  }
  Bytes Encode() const {
    return Der({0x30}, {{2, 1, 0},
                        Der({4}, {transit_key}),
                        Der({4}, {iv}),
                        Description(),
                        Der({4}, {material}),
                        Der({4}, {tag})});
  }
};

}  // namespace test

#endif  // TESTS_REQUESTS_WIRE_H

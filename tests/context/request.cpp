#include "tests/context/request.h"

#include <openssl/x509.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <set>

namespace test {

uint8_t g_callers_own = 0;

std::string LastLines(size_t count) {
  Lines lines;
  for (const std::string& line : Log()) {
    if (line.compare(2, 14, "KeyMaster_Ts: ") != 0) continue;
    const bool marked = line.compare(16, 10, "[error] : ") == 0;
    lines.push_back(line.substr(0, 1) + (marked ? "! " : " ") + line.substr(marked ? 26 : 16));
  }
  std::string out;
  for (size_t i = lines.size() - std::min(count, lines.size()); i < lines.size(); ++i) {
    out += (out.empty() ? "" : "; ") + lines[i];
  }
  return out;
}

void Answer(uint32_t command, const Reply& reply) {
  platform().ClearRecords();
  platform().queued.clear();
  platform().Queue(command, reply);
}

std::string RequestLog() { return LastLines(SIZE_MAX); }

std::string Hex(const Bytes& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (const uint8_t byte : bytes) out += {kDigits[byte / 16], kDigits[byte % 16]};
  return out;
}

namespace {
keymaster_key_param_t g_callers_param{};
const keymaster_key_param_set_t kKeptSet = {&g_callers_param, 77};
}  // namespace

std::string TakeSet(keymaster_key_param_set_t* set) {
  std::string text = "broken";
  if (set->params == kKeptSet.params && set->length == kKeptSet.length) {
    text = "kept";
  } else if (set->params == nullptr && set->length == 0) {
    text = "empty";
  } else if (set->params != nullptr && set->length > 0) {
    text = Describe(*set);
    FreeSet(set);
  }
  *set = kKeptSet;
  return text;
}

OutSet::OutSet() : keymaster_key_param_set_t(kKeptSet) {}
OutCharacteristics::OutCharacteristics() : keymaster_key_characteristics_t{kKeptSet, kKeptSet} {}

namespace {
keymaster_blob_t g_callers_entry{};
}

OutChain::OutChain() : keymaster_cert_chain_t{&g_callers_entry, 77} {}

std::string OutChain::Take() {
  std::string text;
  if (entries == &g_callers_entry && entry_count == 77) {
    text = "kept";
  } else if (entries == nullptr) {
    text = entry_count == 0 ? "empty" : "broken";
  } else {
    for (size_t i = 0; i < entry_count; ++i) text += (i == 0 ? "" : " ") + TakeBlob(&entries[i]);
    free(entries);
  }
  static_cast<keymaster_cert_chain_t&>(*this) = {&g_callers_entry, 77};
  return text;
}

void FailEachCallOf(const std::function<int32_t()>& request) {
  const std::map<Call, std::set<int32_t>> kFaults = {
      {Call::kMalloc, {-41, -38, Code(0xFFFF000C)}},
      {Call::kMemcpyS, {-41, -1000, -17, Code(0xFFFF0000)}},
      {Call::kMemsetS, {-41, -1000, Code(0xFFFF0000)}},
      {Call::kOpenSession, {Code(kInjectedTeeError)}},
      {Call::kInvoke, {Code(kInjectedTeeError)}}};
  for (const auto& [call, results] : kFaults) {
    bool hit = true;
    for (int nth = 1; hit; ++nth) {
      SCOPED_TRACE("call " + std::to_string(static_cast<int>(call)) + ", " + std::to_string(nth));
      platform().ClearRecords();
      FailCall(call, nth);
      const int32_t result = request();
      hit = CallCount(call) >= nth;
      FailCall(call, 0);
      EXPECT_TRUE(hit || nth > 1 || call == Call::kMemcpyS) << "never called";
      EXPECT_EQ(hit ? 1u : 0u, results.count(result)) << result;
      for (const Opened& opened : platform().opens) EXPECT_FALSE(opened.open);
    }
  }
}

Bytes Characteristics() {
  return Cat({WireList({Entry(KM_TAG_ALGORITHM, KM_ALGORITHM_AES)}),
              WireList({BytesEntry(KM_TAG_AUTH_TOKEN, 0, 2)}),
              {7, 8}});
}

Bytes SecondList(std::initializer_list<std::pair<int64_t, Bytes>> params) {
  Bytes entries, area;
  for (const auto& [tag, bytes] : params) {
    entries = Cat({entries, BytesEntry(tag, static_cast<uint32_t>(area.size()),
                                       static_cast<uint32_t>(bytes.size()))});
    area = Cat({area, bytes});
  }
  return Cat({Le32(0), Le32(static_cast<uint32_t>(params.size())), entries, area});
}

EVP_PKEY* SharedRsaKey() {
  static const Pkey kKey(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{2048}));
  return kKey.get();
}

Number NumberOf(const EVP_PKEY* key, const char* name) {
  BIGNUM* number = nullptr;
  EXPECT_EQ(1, EVP_PKEY_get_bn_param(key, name, &number)) << name;
  return Number(number);
}

Bytes BigEndian(const BIGNUM* number) {
  Bytes out(static_cast<size_t>(BN_num_bytes(number)));
  BN_bn2bin(number, out.data());
  return out;
}

Bytes Pkcs8(const EVP_PKEY* key) {
  PKCS8_PRIV_KEY_INFO* info = EVP_PKEY2PKCS8(key);
  uint8_t* der = nullptr;
  const int length = i2d_PKCS8_PRIV_KEY_INFO(info, &der);
  PKCS8_PRIV_KEY_INFO_free(info);
  const Bytes out(der, der + length);
  OPENSSL_free(der);
  return out;
}

uint32_t U32(const Bytes& bytes, size_t offset) {
  uint32_t value = 0;
  if (offset + 4 <= bytes.size()) memcpy(&value, &bytes[offset], 4);
  return value;
}

}  // namespace test

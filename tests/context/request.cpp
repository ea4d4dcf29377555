#include "tests/context/request.h"

#include <algorithm>
#include <sstream>

namespace test {

alignas(16) uint8_t g_callers_own[16];

namespace {

constexpr size_t kCallersCount = 77;

template <typename T>
T* CallersOwn() {
  return reinterpret_cast<T*>(g_callers_own);
}

// Tells what became of an output: nothing when it is the caller's, else `name` and "empty" or what
// tell says of it and frees.
template <typename T, typename Tell>
std::string State(const char* name, T* items, size_t count, Tell tell) {
  if (items == CallersOwn<T>() && count == kCallersCount) return "";
  return name + (items == nullptr && count == 0 ? "empty" : tell());
}

std::string BlobState(const char* name, const keymaster_blob_t& blob) {
  return State(name, blob.data, blob.data_length, [&] {
    const std::string text = Hex(BlobBytes(blob));
    free(const_cast<uint8_t*>(blob.data));
    return text;
  });
}

std::string SetState(const char* name, keymaster_key_param_set_t* set) {
  return State(name, set->params, set->length, [set] {
    const std::string text = Describe(*set);
    FreeSet(set);
    return text;
  });
}

std::string ChainState(const keymaster_cert_chain_t& chain) {
  return State(" chain=", chain.entries, chain.entry_count, [&] {
    std::string text;
    for (size_t i = 0; i < chain.entry_count; ++i) text += BlobState("/", chain.entries[i]);
    free(chain.entries);
    return text;
  });
}

// The lines under the requests' tag.
Lines RequestLog() {
  Lines lines;
  for (const std::string& line : Log()) {
    if (line.compare(2, 14, "KeyMaster_Ts: ") != 0) continue;
    const bool marked = line.compare(16, 10, "[error] : ") == 0;
    lines.push_back(line[0] + (marked ? "! " + line.substr(26) : " " + line.substr(16)));
  }
  return lines;
}

}  // namespace

void RequestTest::ResetOutputs() {
  key = {g_callers_own, kCallersCount};
  data = {g_callers_own, kCallersCount};
  params = traits.hw_enforced =
      traits.sw_enforced = {CallersOwn<keymaster_key_param_t>(), kCallersCount};
  chain = {CallersOwn<keymaster_blob_t>(), kCallersCount};
}

std::string RequestTest::Outcome(int32_t result, size_t last_lines) {
  std::ostringstream out;
  if (result < -2000 || result > 0) out << std::hex;
  out << result << std::dec;
  const char* separator = " [";
  for (const uint32_t command : Commands()) out << separator << command, separator = " ";
  if (!Commands().empty()) out << "]";
  out << BlobState(" key=", {key.key_material, key.key_material_size}) << BlobState(" data=", data)
      << SetState(" params=", &params) << SetState(" traits=", &traits.hw_enforced)
      << SetState("|", &traits.sw_enforced) << ChainState(chain);
  ResetOutputs();
  Lines log = RequestLog();
  if (!start.empty()) {
    EXPECT_EQ(start, log.empty() ? "" : log[0]);
    if (!log.empty()) log.erase(log.begin());
  }
  separator = ": ";
  for (size_t i = log.size() - std::min(last_lines, log.size()); i < log.size(); ++i) {
    out << separator << log[i], separator = "; ";
  }
  sent = platform().invocations;
  for (const Opened& opened : platform().opens) EXPECT_FALSE(opened.open);
  platform().ClearRecords();
  return out.str();
}

Parts RequestTest::Inputs(size_t command) const {
  Parts parts;
  const Invocation& seen = sent.at(command);
  for (unsigned i = 0; i < 4; ++i) {
    const uint32_t type = TEEC_PARAM_TYPE_GET(seen.param_types, i);
    const SeenParam& param = seen.params[i];
    Bytes part = param.in;
    if (type == TEEC_MEMREF_TEMP_INOUT) part.resize(8);
    if (type == TEEC_VALUE_INPUT || type == TEEC_VALUE_INOUT) {
      part = Cat({Le32(param.value.a), Le32(param.value.b)});
    }
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

std::string Hex(const Bytes& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (const uint8_t byte : bytes) out += {kDigits[byte / 16], kDigits[byte % 16]};
  return out;
}

Bytes Characteristics() {
  const Bytes token = BytesEntry(KM_TAG_AUTH_TOKEN, 0, 2);
  return Cat({WireList({Entry(KM_TAG_ALGORITHM, 32)}), WireList({token}), Bytes{7, 8}});
}

Bytes SecondList(std::initializer_list<std::pair<int64_t, Bytes>> params) {
  Bytes entries, area;
  for (const auto& [tag, bytes] : params) {
    entries = Cat({entries, BytesEntry(tag, Size(area), Size(bytes))});
    area = Cat({area, bytes});
  }
  return Cat({Le32(0), Le32(static_cast<uint32_t>(params.size())), entries, area});
}

Bytes FinishInput(const Bytes& input, const Bytes& signature) {
  return Cat({{0}, Le32(Size(input)), input, {1}, Le32(Size(signature)), signature});
}

EVP_PKEY* SharedRsaKey() {
  static const Pkey kKey = NewRsaKey(2048);
  return kKey.get();
}

}  // namespace test

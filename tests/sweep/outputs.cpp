#include "tests/sweep/outputs.h"

#include <functional>

#include "tests/platform/bytes.h"
#include "tests/sweep/library_hooks.h"

namespace test {
namespace {

constexpr uint8_t kGarbage[1] = {};
constexpr size_t kGarbageLength = 77;

std::string Hex(const Bytes& bytes) {
  std::string out;
  for (const uint8_t byte : bytes)
    out += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
  return out;
}

std::string Describe(const void* bytes, size_t length,
                     const std::function<std::string()>& content) {
  if (bytes == kGarbage) return length == kGarbageLength ? "u" : "x";
  if (bytes == nullptr) return length == 0 ? "e" : "x";
  return IsOutput(bytes, length) ? "w " + content() : "x";
}

std::string DescribeBytes(const uint8_t* bytes, size_t length) {
  return Describe(bytes, length, [&] { return Hex(Bytes(bytes, bytes + length)); });
}

std::string DescribeSet(const keymaster_key_param_set_t& set) {
  std::string out = Describe(set.params, set.length, [] { return ""; });
  if (out[0] != 'w') return out;
  if (!IsOutput(set.params, set.length * sizeof(*set.params))) return "x";
  for (size_t i = 0; i < set.length; ++i) {
    const keymaster_key_param_t& param = set.params[i];
    if (!IsByteValued(static_cast<uint32_t>(param.tag))) continue;
    if (DescribeBytes(param.blob.data, param.blob.data_length)[0] == 'x') return "x";
  }
  return out + test::Describe(set);
}

std::string DescribeChain(const keymaster_cert_chain_t& chain) {
  std::string out = Describe(chain.entries, chain.entry_count, [] { return ""; });
  if (out[0] != 'w') return out;
  if (!IsOutput(chain.entries, chain.entry_count * sizeof(*chain.entries))) return "x";
  for (size_t i = 0; i < chain.entry_count; ++i) {
    const std::string entry = DescribeBytes(chain.entries[i].data, chain.entries[i].data_length);
    if (entry[0] != 'w') return "x";
    out += entry;
  }
  return out;
}

// Two states as one: the same, or the more telling of them.
std::string Join(const std::string& a, const std::string& b) {
  if (a == b || b == "e") return a;
  if (a == "e") return b;
  return a[0] == 'w' && b[0] == 'w' ? a + " | " + b : "x";
}

void ReleaseBytes(const uint8_t* bytes) {
  if (bytes != kGarbage) ReleaseOutput(bytes);
}

void ReleaseSet(const keymaster_key_param_set_t& set) {
  const void* params = set.params;
  if (params == kGarbage) return;
  for (size_t i = 0; i < set.length; ++i) {
    if (IsByteValued(static_cast<uint32_t>(set.params[i].tag)))
      ReleaseBytes(set.params[i].blob.data);
  }
  ReleaseOutput(params);
}

template <typename T>
T* Garbage() {
  return reinterpret_cast<T*>(const_cast<uint8_t*>(kGarbage));
}

}  // namespace

Outputs::Outputs()
    : key{kGarbage, kGarbageLength},
      traits{{Garbage<keymaster_key_param_t>(), kGarbageLength},
             {Garbage<keymaster_key_param_t>(), kGarbageLength}},
      data{kGarbage, kGarbageLength},
      params{Garbage<keymaster_key_param_t>(), kGarbageLength},
      chain{Garbage<keymaster_blob_t>(), kGarbageLength},
      number{kUntouched, kUntouched, kUntouched} {}

State Describe(const Outputs& o) {
  std::string numbers;
  for (const uint64_t number : o.number) {
    if (number != kUntouched) numbers += " " + std::to_string(number);
  }
  return {{'k', DescribeBytes(o.key.key_material, o.key.key_material_size)},
          {'t', Join(DescribeSet(o.traits.hw_enforced), DescribeSet(o.traits.sw_enforced))},
          {'d', DescribeBytes(o.data.data, o.data.data_length)},
          {'p', DescribeSet(o.params)},
          {'c', DescribeChain(o.chain)},
          {'n', numbers.empty() ? "u" : "w" + numbers}};
}

void Release(Outputs* o) {
  ReleaseBytes(o->key.key_material);
  ReleaseBytes(o->data.data);
  ReleaseSet(o->traits.hw_enforced);
  ReleaseSet(o->traits.sw_enforced);
  ReleaseSet(o->params);
  const void* entries = o->chain.entries;
  if (entries != kGarbage) {
    for (size_t i = 0; i < o->chain.entry_count; ++i) ReleaseBytes(o->chain.entries[i].data);
    ReleaseOutput(entries);
  }
  *o = Outputs();
}

}  // namespace test

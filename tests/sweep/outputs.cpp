#include "tests/sweep/library_hooks.h"
#include "tests/sweep/requests.h"

namespace test {
namespace {

alignas(16) uint8_t g_garbage[16];
constexpr size_t kGarbageLength = 77;

template <typename T>
T* Garbage() {
  return reinterpret_cast<T*>(g_garbage);
}

// Tells of an array, of whose items `tell` tells, and releases it.
template <typename Item, typename Tell>
std::string TakeArray(Item* items, size_t count, Tell tell) {
  if (items == Garbage<Item>()) return count == kGarbageLength ? "u" : "x";
  if (items == nullptr) return count == 0 ? "e" : "x";
  if (!IsOutput(items, count * sizeof(Item))) return "x";
  std::string out = "w";
  for (size_t i = 0; i < count; ++i) out += " " + tell(items[i]);
  ReleaseOutput(items);
  return out;
}

std::string TakeBytes(const uint8_t* bytes, size_t length) {
  return TakeArray(bytes, length, [](uint8_t byte) { return std::to_string(byte); });
}

std::string TakeSet(const keymaster_key_param_set_t& set) {
  return TakeArray(set.params, set.length, [](const keymaster_key_param_t& param) {
    const auto tag = static_cast<uint32_t>(param.tag);
    return std::to_string(tag) + "=" +
           (IsByteValued(tag) ? TakeBytes(param.blob.data, param.blob.data_length)
                              : Describe({const_cast<keymaster_key_param_t*>(&param), 1}));
  });
}

std::string TakeChain(const keymaster_cert_chain_t& chain) {
  return TakeArray(chain.entries, chain.entry_count, [](const keymaster_blob_t& entry) {
    return entry.data == nullptr ? "x" : TakeBytes(entry.data, entry.data_length);
  });
}

}  // namespace

Outputs::Outputs()
    : key{g_garbage, kGarbageLength},
      data{g_garbage, kGarbageLength},
      params{Garbage<keymaster_key_param_t>(), kGarbageLength},
      chain{Garbage<keymaster_blob_t>(), kGarbageLength},
      number{kUntouched, kUntouched, kUntouched} {
  traits = {params, params};
}

State Perform(const Request& request) {
  Outputs o;
  ta().answers.clear();
  const int32_t code = request.run(o);
  std::string numbers = "u";
  for (const uint64_t number : o.number) {
    if (number != kUntouched) numbers += " " + std::to_string(number);
  }
  if (numbers != "u") numbers[0] = 'w';
  return {{'r', std::to_string(code)},
          {'k', TakeBytes(o.key.key_material, o.key.key_material_size)},
          {'h', TakeSet(o.traits.hw_enforced)},
          {'s', TakeSet(o.traits.sw_enforced)},
          {'d', TakeBytes(o.data.data, o.data.data_length)},
          {'p', TakeSet(o.params)},
          {'c', TakeChain(o.chain)},
          {'n', numbers}};
}

}  // namespace test

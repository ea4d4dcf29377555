// What the fuzz targets share: reading the fuzzer's bytes, and checking and releasing what the
// library hands out.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <hardware/keymaster_defs.h>
#include <sanitizer/asan_interface.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

using Bytes = std::vector<uint8_t>;

// Check aborts, which is a find, when what must hold does not.
inline void Check(bool holds, const char* what, int line = __builtin_LINE()) {
  if (holds) return;
  fprintf(stderr, "line %d: does not hold: %s\n", line, what);
  abort();
}

// Input is taken from the front, so that a seed can be written down in the order of its use.
// Numbers are little-endian; past the end they are 0 and bytes are missing.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : at_(data), left_(size) {}
  bool empty() const { return left_ == 0; }
  uint8_t U8() { return static_cast<uint8_t>(Number(1)); }
  uint16_t U16() { return static_cast<uint16_t>(Number(2)); }
  uint32_t U32() { return static_cast<uint32_t>(Number(4)); }
  uint64_t U64() { return Number(8); }
  // Takes up to count bytes.
  Bytes Take(size_t count) {
    count = std::min(count, left_);
    const Bytes out(at_, at_ + count);
    Skip(count);
    return out;
  }
  // Takes a 16-bit length and that many bytes.
  Bytes TakeSized() { return Take(U16()); }

 private:
  uint64_t Number(size_t size) {
    uint64_t value = 0;
    const size_t count = std::min(size, left_);
    for (size_t i = 0; i < count; ++i) value |= uint64_t{at_[i]} << (8 * i);
    Skip(count);
    return value;
  }
  void Skip(size_t count) {
    at_ += count;
    left_ -= count;
  }

  const uint8_t* at_;
  size_t left_;
};

// The kinds of value, as the top four bits of a tag tell them.
inline uint32_t TypeOf(keymaster_tag_t tag) { return static_cast<uint32_t>(tag) >> 28; }
inline bool HasBytes(keymaster_tag_t tag) { return TypeOf(tag) == 8 || TypeOf(tag) == 9; }
inline bool HasU64(keymaster_tag_t tag) {
  return TypeOf(tag) == 5 || TypeOf(tag) == 6 || TypeOf(tag) == 10;
}

// CheckReadable finds a length beyond its buffer, or a buffer that is gone.
inline void CheckReadable(const void* bytes, size_t length) {
  Check((bytes == nullptr) == (length == 0), "bytes come with a length, a length with bytes");
  Check(__asan_region_is_poisoned(const_cast<void*>(bytes), length) == nullptr,
        "all bytes can be read");
}

// Each Release checks an output of a request, frees it and leaves it empty.
inline void Release(keymaster_blob_t* blob) {
  CheckReadable(blob->data, blob->data_length);
  free(const_cast<uint8_t*>(blob->data));
  *blob = {};
}

// A TA may well answer with a key blob of no bytes, which is a buffer all the same.
inline void Release(keymaster_key_blob_t* blob) {
  if (blob->key_material_size != 0) CheckReadable(blob->key_material, blob->key_material_size);
  free(const_cast<uint8_t*>(blob->key_material));
  *blob = {};
}

inline void Release(keymaster_key_param_set_t* set) {
  Check((set->params == nullptr) == (set->length == 0), "a set has an array or is empty");
  for (size_t i = 0; i < set->length; ++i) {
    if (HasBytes(set->params[i].tag)) Release(&set->params[i].blob);
  }
  free(set->params);
  *set = {};
}

inline void Release(keymaster_key_characteristics_t* characteristics) {
  Release(&characteristics->hw_enforced);
  Release(&characteristics->sw_enforced);
}

inline void Release(keymaster_cert_chain_t* chain) {
  Check((chain->entries == nullptr) == (chain->entry_count == 0),
        "a chain has entries or is empty");
  for (size_t i = 0; i < chain->entry_count; ++i) {
    Check(chain->entries[i].data_length != 0, "no certificate is empty");
    Release(&chain->entries[i]);
  }
  free(chain->entries);
  *chain = {};
}

inline bool IsEmpty(const keymaster_key_param_set_t& set) {
  return set.params == nullptr && set.length == 0;
}

// The memory of a parameter list that a target makes up: 16-bit-sized byte values, all of it freed
// with the list.
struct ParamList {
  std::vector<keymaster_key_param_t> params;
  std::vector<Bytes> bytes;
  keymaster_key_param_set_t set() { return {params.data(), params.size()}; }
};

// Takes entries of tag and value: an 8-byte number, or for a byte value sized bytes. Ends with the
// input or with tag 0.
inline ParamList TakeParams(Input* input, size_t most) {
  ParamList list;
  while (!input->empty() && list.params.size() < most) {
    keymaster_key_param_t param = {};
    param.tag = static_cast<keymaster_tag_t>(input->U32());
    if (param.tag == KM_TAG_INVALID) break;
    if (HasBytes(param.tag)) {
      list.bytes.push_back(input->TakeSized());
      const Bytes& value = list.bytes.back();
      param.blob = {value.empty() ? nullptr : value.data(), value.size()};
    } else {
      param.long_integer = input->U64();
    }
    list.params.push_back(param);
  }
  return list;
}

}  // namespace fuzz

#endif  // FUZZ_INPUT_H

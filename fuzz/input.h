// What the fuzz targets share: reading the fuzzer's bytes, and finding what does not hold.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <hardware/keymaster_defs.h>
#include <sanitizer/asan_interface.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>

#include "tests/requests/wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

using test::Bytes;
using test::Params;

// Check aborts, which is a find, when what must hold does not.
inline void Check(bool holds, const char* what, int line = __builtin_LINE()) {
  if (!holds) {
    fprintf(stderr, "line %d: does not hold: %s\n", line, what);
    abort();
  }
}

// CheckReadable finds a length beyond its buffer, or a buffer that is gone.
inline void CheckReadable(const void* bytes, size_t length) {
  Check((bytes == nullptr) == (length == 0), "bytes come with a length, a length with bytes");
  Check(__asan_region_is_poisoned(const_cast<void*>(bytes), length) == nullptr,
        "all bytes can be read");
}

// Input is read from the front, so that a seed can be written down in the order of its use.
// Numbers are little-endian; past the end they are 0 and bytes are missing.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : at_(data), left_(size) {}
  bool empty() const { return left_ == 0; }
  uint8_t U8() { return Number<uint8_t>(); }
  uint16_t U16() { return Number<uint16_t>(); }
  uint32_t U32() { return Number<uint32_t>(); }
  uint64_t U64() { return Number<uint64_t>(); }
  // Read returns up to count bytes.
  Bytes Read(size_t count) {
    count = std::min(count, left_);
    const Bytes out(at_, at_ + count);
    at_ += count;
    left_ -= count;
    return out;
  }
  // ReadSized reads a 16-bit length and that many bytes.
  Bytes ReadSized() { return Read(U16()); }

 private:
  template <typename T>
  T Number() {
    T value = 0;
    const Bytes bytes = Read(sizeof(value));
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<uint8_t*>(&value));
    return value;
  }

  const uint8_t* at_;
  size_t left_;
};

// ReadParams reads entries of tag and value: an 8-byte number, or for a byte value sized bytes.
// They end with the input or with tag 0.
inline Params ReadParams(Input* input, size_t most) {
  Params params;
  while (!input->empty() && params.size() < most) {
    const uint32_t tag = input->U32();
    if (tag == KM_TAG_INVALID) break;
    if (test::IsByteValued(tag)) {
      params.emplace_back(tag, input->ReadSized());
    } else {
      params.emplace_back(tag, input->U64());
    }
  }
  return params;
}

}  // namespace fuzz

#endif  // FUZZ_INPUT_H

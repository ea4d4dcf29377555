// Small builders: byte strings, key parameter sets and their wire form.
#ifndef TESTS_PLATFORM_BYTES_H
#define TESTS_PLATFORM_BYTES_H

#include <hardware/keymaster_defs.h>
#include <stdint.h>
#include <stdlib.h>

#include <deque>
#include <initializer_list>
#include <string>
#include <variant>
#include <vector>

namespace test {

using Bytes = std::vector<uint8_t>;

inline Bytes LittleEndian(uint64_t value, int width) {
  Bytes out;
  for (int i = 0; i < width; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
  return out;
}
inline Bytes Le32(uint32_t value) { return LittleEndian(value, 4); }
inline Bytes Le64(uint64_t value) { return LittleEndian(value, 8); }

inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

// Ramp(first, n) is n bytes counting up from first: no two neighbours are equal.
inline Bytes Ramp(uint8_t first, size_t length) {
  Bytes out(length);
  for (size_t i = 0; i < length; ++i) out[i] = static_cast<uint8_t>(first + i);
  return out;
}

inline Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

inline Bytes BlobBytes(const keymaster_blob_t& blob) {
  return blob.data == nullptr ? Bytes() : Bytes(blob.data, blob.data + blob.data_length);
}
inline Bytes BlobBytes(const keymaster_key_blob_t& blob) {
  return BlobBytes(keymaster_blob_t{blob.key_material, blob.key_material_size});
}

// A blob structure that points at bytes; the bytes must outlive it.
inline keymaster_blob_t Blob(const Bytes& bytes) { return {bytes.data(), bytes.size()}; }
inline keymaster_key_blob_t KeyBlob(const Bytes& bytes) { return {bytes.data(), bytes.size()}; }

// Param is a tag with a number (of whatever width the tag's type asks for) or with bytes.
struct Param {
  Param(int64_t t, uint64_t number) : tag(static_cast<uint32_t>(t)), value(number) {}
  Param(int64_t t, Bytes bytes) : tag(static_cast<uint32_t>(t)), value(std::move(bytes)) {}
  uint32_t tag;
  std::variant<uint64_t, Bytes> value;
};

inline bool IsByteValued(uint32_t tag) { return tag >> 28 == 8 || tag >> 28 == 9; }

// ParamSet owns a keymaster_key_param_set_t: ParamSet set({{KM_TAG_KEY_SIZE, 256}}).
class ParamSet {
 public:
  ParamSet(std::initializer_list<Param> params) {
    for (const Param& param : params) Add(param);
  }
  ParamSet(const ParamSet&) = delete;
  ParamSet& operator=(const ParamSet&) = delete;

  void Add(const Param& param) {
    keymaster_key_param_t out{};
    out.tag = static_cast<keymaster_tag_t>(param.tag);
    if (IsByteValued(param.tag)) {
      bytes_.push_back(std::get<Bytes>(param.value));
      out.blob = Blob(bytes_.back());
    } else {
      out.long_integer = std::get<uint64_t>(param.value);
    }
    params_.push_back(out);
    set_ = {params_.data(), params_.size()};
  }
  keymaster_key_param_set_t* get() { return &set_; }
  keymaster_key_param_t& operator[](size_t index) { return params_[index]; }

 private:
  std::deque<Bytes> bytes_;
  std::vector<keymaster_key_param_t> params_;
  keymaster_key_param_set_t set_{};
};

// Entry is the 16 wire bytes of a parameter with a number.
inline Bytes Entry(int64_t tag, uint64_t value = 0) {
  return Cat({Le64(static_cast<uint32_t>(tag)), Le64(value)});
}
// BytesEntry is the 16 wire bytes of a byte-valued parameter.
inline Bytes BytesEntry(int64_t tag, uint32_t offset, uint32_t length) {
  return Entry(tag, uint64_t{length} << 32 | offset);
}
// WireList is a count and entries; a two-list reply is WireList + WireList + blob area.
inline Bytes WireList(std::initializer_list<Bytes> entries) {
  return Cat({Le32(static_cast<uint32_t>(entries.size())), Cat(entries)});
}

// FreeSet releases a set that the library made, and empties it.
inline void FreeSet(keymaster_key_param_set_t* set) {
  for (size_t i = 0; i < set->length; ++i) {
    if (IsByteValued(static_cast<uint32_t>(set->params[i].tag))) {
      free(const_cast<uint8_t*>(set->params[i].blob.data));
    }
  }
  free(set->params);
  *set = {};
}

// Describe prints a decoded set, one parameter a word: "20000001=2 900003e8:0a0b".
std::string Describe(const keymaster_key_param_set_t& set);

}  // namespace test

#endif  // TESTS_PLATFORM_BYTES_H

// Small builders: byte strings, key parameter sets and their wire form.
#ifndef TESTS_PLATFORM_BYTES_H
#define TESTS_PLATFORM_BYTES_H

#include <hardware/keymaster_defs.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <deque>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

namespace test {

using Bytes = std::vector<uint8_t>;

inline Bytes LittleEndian(uint64_t value, int width) {
  Bytes out;
  for (int i = 0; i < width; ++i) {
    out.push_back(static_cast<uint8_t>(value >> (8 * i)));
  }
  return out;
}
inline Bytes Le32(uint32_t value) { return LittleEndian(value, 4); }
inline Bytes Le64(uint64_t value) { return LittleEndian(value, 8); }

inline Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) {
    out.insert(out.end(), part.begin(), part.end());
  }
  return out;
}

// Ramp(first, n) is n bytes counting up from first: no two neighbours are equal.
inline Bytes Ramp(uint8_t first, size_t length) {
  Bytes out(length);
  for (size_t i = 0; i < length; ++i) {
    out[i] = static_cast<uint8_t>(first + i);
  }
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

// Fenced is a copy of bytes that ends where readable memory ends: who reads one more is killed.
class Fenced {
 public:
  explicit Fenced(const Bytes& bytes) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t before = (bytes.size() + page - 1) / page * page;
    length_ = before + page;
    memory_ = mmap(nullptr, length_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    auto* fence = static_cast<uint8_t*>(memory_) + before;
    if (memory_ == MAP_FAILED || mprotect(fence, page, PROT_NONE) != 0) abort();
    if (!bytes.empty()) {
      memcpy(fence - bytes.size(), bytes.data(), bytes.size());
      blob = {fence - bytes.size(), bytes.size()};
      key = {blob.data, blob.data_length};
    }
  }
  ~Fenced() { munmap(memory_, length_); }
  Fenced(const Fenced&) = delete;
  Fenced& operator=(const Fenced&) = delete;
  uint8_t* data() const { return const_cast<uint8_t*>(blob.data); }

  // The bytes, as requests want them; null when there are none.
  keymaster_blob_t blob{};
  keymaster_key_blob_t key{};

 private:
  void* memory_;
  size_t length_;
};

// Param is a tag with a number (of whatever width the tag's type asks for) or with bytes.
struct Param {
  Param(int64_t t, uint64_t number) : tag(static_cast<uint32_t>(t)), value(number) {}
  Param(int64_t t, Bytes bytes) : tag(static_cast<uint32_t>(t)), value(std::move(bytes)) {}
  // A template, so that bytes in braces are no text.
  template <typename T,
            std::enable_if_t<std::is_convertible_v<const T&, std::string_view>, int> = 0>
  Param(int64_t t, const T& text) : Param(t, Text(text)) {}
  uint32_t tag;
  std::variant<uint64_t, Bytes> value;
};

inline bool IsByteValued(uint32_t tag) { return tag >> 28 == 8 || tag >> 28 == 9; }
// NumberOf is the value of a parameter that is not byte-valued, as wide as its tag says.
inline uint64_t NumberOf(const keymaster_key_param_t& param) {
  const uint32_t type = static_cast<uint32_t>(param.tag) >> 28;
  return type >= 1 && type <= 4 ? param.integer : type == 7 ? param.boolean : param.long_integer;
}

// ParamSet owns a keymaster_key_param_set_t: ParamSet set({{KM_TAG_KEY_SIZE, 256}}). Its array and
// its byte values are fenced.
class ParamSet {
 public:
  ParamSet(std::initializer_list<Param> params = {}) {
    for (const Param& param : params) {
      Add(param);
    }
  }
  explicit ParamSet(const std::vector<Param>& params) {
    for (const Param& param : params) {
      Add(param);
    }
  }
  ParamSet(const ParamSet&) = delete;
  ParamSet& operator=(const ParamSet&) = delete;

  void Add(const Param& param) {
    keymaster_key_param_t out{};
    out.tag = static_cast<keymaster_tag_t>(param.tag);
    if (IsByteValued(param.tag)) {
      out.blob = bytes_.emplace_back(std::get<Bytes>(param.value)).blob;
    } else {
      out.long_integer = std::get<uint64_t>(param.value);
    }
    const auto* entry = reinterpret_cast<const uint8_t*>(&out);
    const auto* params = reinterpret_cast<const uint8_t*>(set_.params);
    Bytes array(params, params + set_.length * sizeof(out));
    array.insert(array.end(), entry, entry + sizeof(out));
    params_.emplace(array);
    set_ = {reinterpret_cast<keymaster_key_param_t*>(params_->data()), set_.length + 1};
  }
  keymaster_key_param_set_t* get() { return &set_; }
  const keymaster_key_param_set_t* get() const { return &set_; }
  keymaster_key_param_t& operator[](size_t index) { return set_.params[index]; }

 private:
  std::deque<Fenced> bytes_;
  std::optional<Fenced> params_;
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

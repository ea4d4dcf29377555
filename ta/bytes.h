// Byte strings of the keymaster TA: plain, secret and borrowed, and their little-endian readers and
// writers.
#ifndef TA_BYTES_H
#define TA_BYTES_H

#include <openssl/crypto.h>
#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ta {

using Bytes = std::vector<uint8_t>;

// CleansingAllocator wipes memory before it is given back.
template <typename T>
struct CleansingAllocator {
  using value_type = T;
  CleansingAllocator() = default;
  template <typename U>
  CleansingAllocator(const CleansingAllocator<U>&) {}  // NOLINT: rebinding is implicit

  T* allocate(size_t count) { return std::allocator<T>().allocate(count); }
  void deallocate(T* memory, size_t count) {
    OPENSSL_cleanse(memory, count * sizeof(T));
    std::allocator<T>().deallocate(memory, count);
  }
  bool operator==(const CleansingAllocator&) const { return true; }
  bool operator!=(const CleansingAllocator&) const { return false; }
};

// SecureBytes holds secrets: whatever it held is wiped when it grows or dies.
using SecureBytes = std::vector<uint8_t, CleansingAllocator<uint8_t>>;

// ByteView borrows bytes that somebody else keeps. data may be null when size is 0.
struct ByteView {
  const uint8_t* data = nullptr;
  size_t size = 0;

  ByteView() = default;
  ByteView(const uint8_t* bytes, size_t length) : data(bytes), size(length) {}
  template <typename Allocator>
  ByteView(const std::vector<uint8_t, Allocator>& bytes)  // NOLINT: a view of it is implicit
      : data(bytes.data()), size(bytes.size()) {}
  ByteView(std::string_view text)  // NOLINT: as above
      : data(reinterpret_cast<const uint8_t*>(text.data())), size(text.size()) {}

  const uint8_t* begin() const { return data; }
  const uint8_t* end() const { return data + size; }
};

// ByteReader walks bytes that it does not own. A failed read consumes nothing.
class ByteReader {
 public:
  explicit ByteReader(ByteView bytes) : bytes_(bytes) {}

  size_t remaining() const { return bytes_.size; }
  ByteView rest() const { return bytes_; }

  bool TakeBytes(size_t size, ByteView* out) {
    if (size > bytes_.size) return false;
    *out = ByteView(bytes_.data, size);
    bytes_ = size == 0 ? bytes_ : ByteView(bytes_.data + size, bytes_.size - size);
    return true;
  }
  // TakeInteger reads as many bytes as T has.
  template <typename T>
  bool TakeInteger(T* out) {
    ByteView raw;
    if (!TakeBytes(sizeof(T), &raw)) return false;
    uint64_t value = 0;
    for (size_t i = sizeof(T); i > 0; --i) {
      value = value << 8 | raw.data[i - 1];
    }
    *out = static_cast<T>(value);
    return true;
  }

 private:
  ByteView bytes_;
};

// AppendInteger and AppendBytes add to the end of a byte string of either kind.
template <typename Integer, typename Container>
void AppendInteger(Container* out, Integer value) {
  for (size_t i = 0; i < sizeof(value); ++i) {
    out->push_back(static_cast<uint8_t>(value >> (8 * i)));
  }
}
template <typename Container>
void AppendBytes(Container* out, ByteView bytes) {
  out->insert(out->end(), bytes.begin(), bytes.end());
}

// AppendBigEndian adds the lowest size bytes of a number, as it is hashed and signed.
template <typename Container>
void AppendBigEndian(Container* out, uint64_t value, size_t size) {
  for (size_t i = size; i > 0; --i) {
    out->push_back(static_cast<uint8_t>(value >> (8 * (i - 1))));
  }
}

// Hex returns two lower-case digits a byte.
inline std::string Hex(ByteView bytes) {
  std::string text;
  for (const uint8_t byte : bytes) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 0xF];
  }
  return text;
}

}  // namespace ta

#endif  // TA_BYTES_H

// Bounds-checked reading of a TA's reply.
#ifndef MARSHAL_REPLY_READER_H
#define MARSHAL_REPLY_READER_H

#include <stdint.h>

#include "wire/little_endian.h"

namespace km41 {

// ReplyReader walks bytes that it does not own. A failed read consumes nothing.
class ReplyReader {
 public:
  ReplyReader() = default;
  ReplyReader(const uint8_t* data, uint32_t length) : data_(data), length_(length) {}

  // BytesAt finds count bytes, which stay the reply's, at an offset from where the reader stands.
  // This is the only bounds check.
  [[nodiscard]] bool BytesAt(uint32_t offset, uint64_t count, const uint8_t** out) const {
    if (offset > remaining() || count > remaining() - offset) return false;
    *out = rest() + offset;
    return true;
  }
  // ReadBytes reads count bytes, which stay the reply's.
  [[nodiscard]] bool ReadBytes(uint64_t count, const uint8_t** out) {
    if (!BytesAt(0, count, out)) return false;
    position_ += static_cast<uint32_t>(count);
    return true;
  }
  [[nodiscard]] bool ReadU32(uint32_t* out) {
    const uint8_t* bytes = nullptr;
    if (!ReadBytes(sizeof(*out), &bytes)) return false;
    *out = GetU32(bytes);
    return true;
  }

  uint32_t length() const { return length_; }
  uint32_t position() const { return position_; }
  uint32_t remaining() const { return length_ - position_; }
  // The bytes that were not read yet.
  const uint8_t* rest() const { return data_ + position_; }

 private:
  const uint8_t* data_ = nullptr;
  uint32_t length_ = 0;
  uint32_t position_ = 0;
};

}  // namespace km41

#endif  // MARSHAL_REPLY_READER_H

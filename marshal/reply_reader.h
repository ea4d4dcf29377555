// Bounds-checked reading of a TA's reply.
#ifndef MARSHAL_REPLY_READER_H
#define MARSHAL_REPLY_READER_H

#include <stdint.h>

#include "wire/little_endian.h"

namespace km41 {

// ReplyReader walks a reply it does not own. A failed read consumes nothing.
class ReplyReader {
 public:
  ReplyReader(const uint8_t* data, uint32_t length) : data_(data), length_(length) {}

  // Takes count bytes, which stay the reply's. This is the only bounds check.
  bool TakeBytes(uint64_t count, const uint8_t** out) {
    if (count > remaining()) {
      return false;
    }
    *out = data_ + position_;
    position_ += static_cast<uint32_t>(count);
    return true;
  }
  bool TakeU32(uint32_t* out) {
    const uint8_t* bytes = nullptr;
    if (!TakeBytes(sizeof(*out), &bytes)) {
      return false;
    }
    *out = GetU32(bytes);
    return true;
  }
  uint32_t position() const { return position_; }
  uint32_t remaining() const { return length_ - position_; }
  const uint8_t* rest() const { return data_ + position_; }

 private:
  const uint8_t* const data_;
  const uint32_t length_;
  uint32_t position_ = 0;
};

}  // namespace km41

#endif  // MARSHAL_REPLY_READER_H

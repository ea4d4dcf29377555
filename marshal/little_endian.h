// The wire's integers: little-endian, at any alignment.
#ifndef MARSHAL_LITTLE_ENDIAN_H
#define MARSHAL_LITTLE_ENDIAN_H

#include <stdint.h>

inline void PutU32(uint8_t* to, uint32_t value) {
  for (int i = 0; i < 4; ++i) {
    to[i] = static_cast<uint8_t>(value >> (8 * i));
  }
}

inline void PutU64(uint8_t* to, uint64_t value) {
  PutU32(to, static_cast<uint32_t>(value));
  PutU32(to + 4, static_cast<uint32_t>(value >> 32));
}

inline uint32_t GetU32(const uint8_t* from) {
  return static_cast<uint32_t>(from[0]) | static_cast<uint32_t>(from[1]) << 8 |
         static_cast<uint32_t>(from[2]) << 16 | static_cast<uint32_t>(from[3]) << 24;
}

inline uint64_t GetU64(const uint8_t* from) {
  return GetU32(from) | static_cast<uint64_t>(GetU32(from + 4)) << 32;
}

#endif  // MARSHAL_LITTLE_ENDIAN_H

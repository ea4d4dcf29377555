// The wire's integers: little-endian, at any alignment.
#ifndef WIRE_LITTLE_ENDIAN_H
#define WIRE_LITTLE_ENDIAN_H

#include <endian.h>
#include <stdint.h>
#include <string.h>

namespace km41 {

// Each is one move of the processor, which not every compiler makes of shifts and bytes.
inline void PutU32(uint8_t* to, uint32_t value) {
  const uint32_t wire = htole32(value);
  memcpy(to, &wire, sizeof(wire));
}

inline void PutU64(uint8_t* to, uint64_t value) {
  const uint64_t wire = htole64(value);
  memcpy(to, &wire, sizeof(wire));
}

inline uint32_t GetU32(const uint8_t* from) {
  uint32_t wire;
  memcpy(&wire, from, sizeof(wire));
  return le32toh(wire);
}

inline uint64_t GetU64(const uint8_t* from) {
  uint64_t wire;
  memcpy(&wire, from, sizeof(wire));
  return le64toh(wire);
}

}  // namespace km41

#endif  // WIRE_LITTLE_ENDIAN_H

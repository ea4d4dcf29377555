// The 16-byte wire form of one key parameter, in both directions.
#ifndef MARSHAL_PARAM_ENTRY_H
#define MARSHAL_PARAM_ENTRY_H

#include <stdint.h>

#include "keymaster_ts.h"
#include "wire/little_endian.h"
#include "wire/ta_protocol.h"

namespace km41 {

static_assert(sizeof(KmParamEntry) == kParamEntrySize, "an entry is its wire form");

// What each tag type, the top four bits of a tag, carries.
enum class ValueKind : uint8_t { kNone, kU32, kU64, kBool, kBytes };
inline constexpr ValueKind kValueKinds[16] = {
    ValueKind::kNone,  ValueKind::kU32,   ValueKind::kU32, ValueKind::kU32,
    ValueKind::kU32,   ValueKind::kU64,   ValueKind::kU64, ValueKind::kBool,
    ValueKind::kBytes, ValueKind::kBytes, ValueKind::kU64,
};
constexpr ValueKind KindOf(keymaster_tag_t tag) {
  return kValueKinds[static_cast<uint32_t>(tag) >> 28];
}

// IsByteValued tells whether the tag's value is bytes, which stand in the blob area.
constexpr bool IsByteValued(keymaster_tag_t tag) { return KindOf(tag) == ValueKind::kBytes; }

// What an entry carries in its last 8 bytes: a value, or for bytes their range in the blob area.
constexpr uint32_t kEntryValueAt = 8;
constexpr uint32_t kEntryLengthAt = 12;

// EncodeEntry writes a parameter's 16 bytes at entry. A byte value gets the offset, or 0 when it is
// empty, and the low 32 bits of its length.
inline void EncodeEntry(const keymaster_key_param_t& param, uint32_t offset, uint8_t* entry) {
  uint64_t value = 0;
  switch (KindOf(param.tag)) {
    case ValueKind::kU32:
      value = param.integer;
      break;
    case ValueKind::kU64:
      value = param.long_integer;
      break;
    case ValueKind::kBool:
      // A caller's boolean as the byte it stored, which need not be 0 or 1.
      value = *reinterpret_cast<const uint8_t*>(&param.boolean);
      break;
    case ValueKind::kBytes:
      value = static_cast<uint64_t>(param.blob.data_length) << 32 |
              (param.blob.data_length != 0 ? offset : 0);
      break;
    case ValueKind::kNone:
      break;
  }
  PutU64(entry, static_cast<uint32_t>(param.tag));
  PutU64(entry + kEntryValueAt, value);
}

// The tag of an entry, and for a byte value its range in the blob area.
inline keymaster_tag_t EntryTag(const uint8_t* entry) {
  return static_cast<keymaster_tag_t>(GetU32(entry));
}
inline uint32_t EntryOffset(const uint8_t* entry) { return GetU32(entry + kEntryValueAt); }
inline uint32_t EntryLength(const uint8_t* entry) { return GetU32(entry + kEntryLengthAt); }
inline void SetEntryOffset(uint8_t* entry, uint32_t offset) {
  PutU32(entry + kEntryValueAt, offset);
}

// DecodeEntry reads the 16 bytes at entry into *param, in place: a result built elsewhere would be
// read back before its parts have been stored. A byte value is left null with length 0: its range
// is EntryOffset and EntryLength.
inline void DecodeEntry(const uint8_t* entry, keymaster_key_param_t* param) {
  *param = keymaster_key_param_t{};
  param->tag = EntryTag(entry);
  switch (KindOf(param->tag)) {
    case ValueKind::kU32:
      param->integer = GetU32(entry + kEntryValueAt);
      break;
    case ValueKind::kU64:
      param->long_integer = GetU64(entry + kEntryValueAt);
      break;
    case ValueKind::kBool:
      param->boolean = entry[kEntryValueAt] != 0;
      break;
    case ValueKind::kBytes:
      // Not left to the initialiser, which need not clear more than a union's first member.
      param->blob = keymaster_blob_t{};
      break;
    case ValueKind::kNone:
      param->long_integer = 0;
      break;
  }
}

}  // namespace km41

#endif  // MARSHAL_PARAM_ENTRY_H

#include "marshal/param_entry.h"

#include "marshal/little_endian.h"

namespace {

constexpr uint32_t kValueAt = 8;
constexpr uint32_t kOffsetAt = 8;
constexpr uint32_t kLengthAt = 12;

enum class ValueKind { kNone, kU32, kU64, kBool, kBytes };

// What each tag type carries.
ValueKind KindOf(keymaster_tag_t tag) {
  switch (static_cast<uint32_t>(tag) >> 28) {
    case 1:
    case 2:
    case 3:
    case 4:
      return ValueKind::kU32;
    case 5:
    case 6:
    case 10:
      return ValueKind::kU64;
    case 7:
      return ValueKind::kBool;
    case 8:
    case 9:
      return ValueKind::kBytes;
    default:
      return ValueKind::kNone;
  }
}

// A caller's boolean as the byte it stored, which need not be 0 or 1.
uint8_t BooleanByte(const keymaster_key_param_t& param) {
  return *reinterpret_cast<const uint8_t*>(&param.boolean);
}

}  // namespace

bool IsByteValued(keymaster_tag_t tag) { return KindOf(tag) == ValueKind::kBytes; }

void EncodeEntry(const keymaster_key_param_t& param, KmParamEntry* entry) {
  *entry = KmParamEntry{};
  PutU32(entry->bytes, static_cast<uint32_t>(param.tag));
  switch (KindOf(param.tag)) {
    case ValueKind::kU32:
      PutU32(entry->bytes + kValueAt, param.integer);
      break;
    case ValueKind::kU64:
      PutU64(entry->bytes + kValueAt, param.long_integer);
      break;
    case ValueKind::kBool:
      entry->bytes[kValueAt] = BooleanByte(param);
      break;
    case ValueKind::kBytes:
      PutU32(entry->bytes + kLengthAt, static_cast<uint32_t>(param.blob.data_length));
      break;
    case ValueKind::kNone:
      break;
  }
}

keymaster_key_param_t DecodeEntry(const uint8_t* entry) {
  keymaster_key_param_t param = {};
  param.tag = EntryTag(entry);
  switch (KindOf(param.tag)) {
    case ValueKind::kU32:
      param.integer = GetU32(entry + kValueAt);
      break;
    case ValueKind::kU64:
      param.long_integer = GetU64(entry + kValueAt);
      break;
    case ValueKind::kBool:
      param.boolean = entry[kValueAt] != 0;
      break;
    case ValueKind::kBytes:
    case ValueKind::kNone:
      break;
  }
  return param;
}

keymaster_tag_t EntryTag(const uint8_t* entry) {
  return static_cast<keymaster_tag_t>(GetU32(entry));
}

uint32_t EntryOffset(const uint8_t* entry) { return GetU32(entry + kOffsetAt); }

uint32_t EntryLength(const uint8_t* entry) { return GetU32(entry + kLengthAt); }

void SetEntryOffset(KmParamEntry* entry, uint32_t offset) {
  PutU32(entry->bytes + kOffsetAt, offset);
}

// The serialised parameter buffer: a counted list of entries, a second one, then the blob area.

#include <errno.h>
#include <securec.h>
#include <string.h>

#include "keymaster_ts.h"
#include "marshal/param_entry.h"
#include "marshal/secret_blob.h"
#include "wire/little_endian.h"
#include "wire/log.h"

using namespace km41;

namespace {

constexpr uint32_t kSlotStep = 16;
constexpr uint32_t kMaxEntries = 0x0FFFFFF0;

// The tags that define a key, which the TA looks for in the first list. Each stands at the place of
// its low four bits, which tell them apart; a place without one holds the tag of another place.
// clang-format off
constexpr keymaster_tag_t kKeyDefinitionTags[16] = {
    KM_TAG_ALGORITHM, KM_TAG_PURPOSE, KM_TAG_ALGORITHM, KM_TAG_KEY_SIZE,              // 0 to 3
    KM_TAG_BLOCK_MODE, KM_TAG_DIGEST, KM_TAG_PADDING, KM_TAG_CALLER_NONCE,            // 4 to 7
    KM_TAG_RSA_PUBLIC_EXPONENT, KM_TAG_ALGORITHM, KM_TAG_EC_CURVE, KM_TAG_ALGORITHM,  // 8 to 11
    KM_TAG_ALGORITHM, KM_TAG_BLOB_USAGE_REQUIREMENTS,                                 // 12, 13
    KM_TAG_BOOTLOADER_ONLY, KM_TAG_ROLLBACK_RESISTANCE,                               // 14, 15
};
// clang-format on
// A switch would cost sets of integers a quarter more time.
constexpr bool IsKeyDefinitionTag(keymaster_tag_t tag) {
  return kKeyDefinitionTags[static_cast<uint32_t>(tag) % 16] == tag;
}

// Whether a byte-valued tag, of which the platform numbers fewer than 4096 a type, defines a key.
constexpr bool ByteValueDefinesKey() {
  for (uint32_t id = 0; id < 4096; ++id) {
    if (IsKeyDefinitionTag(static_cast<keymaster_tag_t>(KM_BIGNUM | id)) ||
        IsKeyDefinitionTag(static_cast<keymaster_tag_t>(KM_BYTES | id))) {
      return true;
    }
  }
  return false;
}
// So that all byte values of a set stand behind the second list.
static_assert(!ByteValueDefinesKey(), "a key-definition tag has a byte value");

int32_t GrowSlots(KmParams* record) {
  if (record->len >= kMaxEntries) {
    KM_LOGE("km_params->len is invalid, please check!\n");
    return -ENOMEM;
  }
  const uint32_t capacity = record->len + kSlotStep;
  MallocPtr<KmParamEntry> slots = Allocate<KmParamEntry>(capacity);
  if (slots == nullptr) return -ENOMEM;
  const size_t used = static_cast<size_t>(record->len) * sizeof(KmParamEntry);
  if (used != 0 &&
      memcpy_s(slots.get(), capacity * sizeof(KmParamEntry), record->params, used) != 0) {
    return -ENOMEM;
  }
  free(record->params);
  record->params = slots.release();
  record->capacity = capacity;
  return 0;
}

// Byte values may be auth tokens or application data.
void FreeBytes(KmParams* record) {
  if (record->data != nullptr) OPENSSL_cleanse(record->data, record->data_len);
  free(record->data);
}

// Appends a byte value to the record's store, which grows to its exact new size.
int32_t AppendBytes(KmParams* record, const keymaster_blob_t& value) {
  const uint32_t size = record->data_len + static_cast<uint32_t>(value.data_length);
  if (size == 0 || size < record->data_len) return -EINVAL;
  SecretBlob grown;
  if (!grown.Allocate(size) || (record->data_len != 0 && memcpy_s(grown.bytes(), size, record->data,
                                                                  record->data_len) != 0)) {
    return -ENOMEM;
  }
  // A length of 2^32 or more fails here: it is above the room left.
  if (memcpy_s(grown.bytes() + record->data_len, size - record->data_len, value.data,
               value.data_length) != 0) {
    return -ENOMEM;
  }
  FreeBytes(record);
  record->data = grown.HandOver();
  record->data_len = size;
  return 0;
}

int32_t AddParam(KmParams* record, const keymaster_key_param_t& param) {
  if (record->len == record->capacity) {
    const int32_t result = GrowSlots(record);
    if (result != 0) return result;
  }
  EncodeEntry(param, record->data_len, record->params[record->len].bytes);
  if (IsByteValued(param.tag) && param.blob.data_length != 0) {
    const int32_t result = AppendBytes(record, param.blob);
    if (result != 0) return result;
  }
  ++record->len;
  return 0;
}

// BufferWriter fills a buffer from its start; each copy is bounded by the room left.
class BufferWriter {
 public:
  BufferWriter(uint8_t* buffer, uint32_t size) : at_(buffer), room_(size) {}

  bool WriteU32(uint32_t value) {
    uint8_t bytes[4];
    PutU32(bytes, value);
    return Write(bytes, sizeof(bytes));
  }
  bool Write(const void* bytes, size_t count) {
    if (count == 0) return true;
    if (memcpy_s(at_, room_, bytes, count) != 0) return false;
    at_ += count;
    room_ -= count;
    return true;
  }

  uint8_t* at() const { return at_; }

 private:
  uint8_t* at_;
  size_t room_;
};

// Moves the byte values of entries behind base bytes of another list.
void RebaseOffsets(uint8_t* entries, uint32_t count, uint32_t base) {
  for (uint32_t i = 0; base != 0 && i < count; ++i) {
    uint8_t* entry = entries + size_t{i} * kParamEntrySize;
    if (IsByteValued(EntryTag(entry))) SetEntryOffset(entry, EntryOffset(entry) + base);
  }
}

size_t EntryBytes(const KmParams& record) {
  return static_cast<size_t>(record.len) * sizeof(KmParamEntry);
}

bool WriteLists(const KmParams& first, const KmParams& second, uint8_t* buffer, uint32_t size) {
  BufferWriter writer(buffer, size);
  if (!writer.WriteU32(first.len) || !writer.Write(first.params, EntryBytes(first)) ||
      !writer.WriteU32(second.len)) {
    return false;
  }
  uint8_t* const second_entries = writer.at();
  if (!writer.Write(second.params, EntryBytes(second))) return false;
  RebaseOffsets(second_entries, second.len, first.data_len);
  return writer.Write(first.data, first.data_len) && writer.Write(second.data, second.data_len);
}

// The buffer's size, 0 when it does not fit 32 bits.
uint32_t BufferSize(const KmParams& first, const KmParams& second) {
  const uint64_t total = uint64_t{2} * sizeof(uint32_t) + EntryBytes(first) + EntryBytes(second) +
                         first.data_len + second.data_len;
  return total <= UINT32_MAX ? static_cast<uint32_t>(total) : 0;
}

// Measures what each list will hold; false when one is full or its byte values pass 32 bits.
bool Measure(const keymaster_key_param_set_t& set, KmParams* first, KmParams* second) {
  const keymaster_key_param_t* const end = set.params + set.length;
  size_t definitions = 0;
  uint64_t bytes = 0;
  for (const keymaster_key_param_t* param = set.params; param != end; ++param) {
    definitions += IsKeyDefinitionTag(param->tag) ? 1 : 0;
    if (IsByteValued(param->tag)) {
      if (param->blob.data_length > UINT32_MAX - bytes) return false;
      bytes += param->blob.data_length;
    }
  }
  const size_t others = set.length - definitions;
  if (definitions > kMaxEntries || others > kMaxEntries) {
    KM_LOGE("km_params->len is invalid, please check!\n");
    return false;
  }
  first->len = static_cast<uint32_t>(definitions);
  second->len = static_cast<uint32_t>(others);
  second->data_len = static_cast<uint32_t>(bytes);
  return true;
}

// Writes a set into a buffer of the measured size, each parameter where it ends up.
bool WriteSet(const keymaster_key_param_set_t& set, const KmParams& first, const KmParams& second,
              uint8_t* buffer) {
  uint8_t* first_at = buffer + sizeof(uint32_t);
  uint8_t* second_at = first_at + EntryBytes(first) + sizeof(uint32_t);
  uint8_t* area_at = second_at + EntryBytes(second);
  BufferWriter first_count(buffer, sizeof(uint32_t));
  BufferWriter second_count(second_at - sizeof(uint32_t), sizeof(uint32_t));
  if (!first_count.WriteU32(first.len) || !second_count.WriteU32(second.len)) return false;
  BufferWriter area(area_at, second.data_len);
  uint32_t offset = 0;
  const keymaster_key_param_t* const end = set.params + set.length;
  for (const keymaster_key_param_t* param = set.params; param != end; ++param) {
    // By value: a place chosen by address would be stored and loaded again for each entry.
    const bool is_first = IsKeyDefinitionTag(param->tag);
    EncodeEntry(*param, offset, is_first ? first_at : second_at);
    first_at += is_first ? kParamEntrySize : 0;
    second_at += is_first ? 0 : kParamEntrySize;
    if (IsByteValued(param->tag)) {
      if (!area.Write(param->blob.data, param->blob.data_length)) return false;
      offset += static_cast<uint32_t>(param->blob.data_length);
    }
  }
  return true;
}

}  // namespace

int32_t InitKmParams(KmParams* km_params) {
  if (km_params == nullptr) {
    KM_LOGE("km_params is null, please check!\n");
    return -ENOMEM;
  }
  if (memset_s(km_params, sizeof(*km_params), 0, sizeof(*km_params)) != 0) return -ENOMEM;
  km_params->capacity = kSlotStep;
  km_params->params = Allocate<KmParamEntry>(kSlotStep).release();
  return km_params->params != nullptr ? 0 : -ENOMEM;
}

int32_t AddKmParams(KmParams* km_params, const keymaster_key_param_t* param) {
  if (km_params == nullptr || param == nullptr) return -EINVAL;
  return AddParam(km_params, *param);
}

int32_t SerializeKmParams(const KmParams* first, KmParams* second, uint8_t** out,
                          uint32_t* out_len) {
  if (second == nullptr || out == nullptr || out_len == nullptr) return -EINVAL;
  const KmParams absent = {};
  const KmParams& leading = first != nullptr ? *first : absent;
  const uint32_t total = BufferSize(leading, *second);
  if (total == 0) return -ENOMEM;
  SecretBlob buffer;
  if (!buffer.Allocate(total) || !WriteLists(leading, *second, buffer.bytes(), total)) {
    return -ENOMEM;
  }
  // The caller's record is rebased too: such is the contract, and why a pair is serialised once.
  RebaseOffsets(reinterpret_cast<uint8_t*>(second->params), second->len, leading.data_len);
  *out = buffer.HandOver();
  *out_len = total;
  return 0;
}

void FreeKmParams(KmParams* km_params) {
  if (km_params == nullptr) return;
  free(km_params->params);
  FreeBytes(km_params);
  km_params->params = nullptr;
  km_params->data = nullptr;
}

int32_t BuildKmParams(const keymaster_key_param_set_t* params, uint8_t** out, uint32_t* out_len) {
  if (params == nullptr || out == nullptr || out_len == nullptr ||
      (params->length != 0 && params->params == nullptr)) {
    return -EINVAL;
  }
  KmParams lists[2];
  KmParams& first = lists[0];
  KmParams& second = lists[1];
  if (memset_s(lists, sizeof(lists), 0, sizeof(lists)) != 0 || !Measure(*params, &first, &second)) {
    return -ENOMEM;
  }
  const uint32_t total = BufferSize(first, second);
  SecretBlob buffer;
  if (total == 0 || !buffer.Allocate(total) || !WriteSet(*params, first, second, buffer.bytes())) {
    return -ENOMEM;
  }
  *out = buffer.HandOver();
  *out_len = total;
  return 0;
}

// The serialised parameter buffer: a counted list of entries, a second one, then the blob area.

#include <errno.h>
#include <securec.h>
#include <string.h>

#include "keymaster_ts.h"
#include "marshal/km_params_owner.h"
#include "marshal/little_endian.h"
#include "marshal/log.h"
#include "marshal/malloc_buffer.h"
#include "marshal/param_entry.h"

namespace {

constexpr uint32_t kSlotStep = 16;
constexpr uint32_t kMaxEntries = 0x0FFFFFF0;

// The tags that define a key. The TA looks for them in the first list.
constexpr keymaster_tag_t kKeyDefinitionTags[] = {
    KM_TAG_ALGORITHM,    KM_TAG_EC_CURVE,        KM_TAG_BLOB_USAGE_REQUIREMENTS,
    KM_TAG_PURPOSE,      KM_TAG_BLOCK_MODE,      KM_TAG_DIGEST,
    KM_TAG_PADDING,      KM_TAG_KEY_SIZE,        KM_TAG_RSA_PUBLIC_EXPONENT,
    KM_TAG_CALLER_NONCE, KM_TAG_BOOTLOADER_ONLY, KM_TAG_ROLLBACK_RESISTANCE,
};

bool IsKeyDefinitionTag(keymaster_tag_t tag) {
  for (keymaster_tag_t definition : kKeyDefinitionTags) {
    if (tag == definition) {
      return true;
    }
  }
  return false;
}

KmParamEntry* AllocateSlots(uint32_t count) {
  return static_cast<KmParamEntry*>(malloc(static_cast<size_t>(count) * sizeof(KmParamEntry)));
}

int32_t GrowSlots(KmParams* record) {
  if (record->len >= kMaxEntries) {
    KM_LOGE("km_params->len is invalid, please check!\n");
    return -ENOMEM;
  }
  const uint32_t capacity = record->len + kSlotStep;
  std::unique_ptr<KmParamEntry, FreeDeleter> slots(AllocateSlots(capacity));
  if (slots == nullptr) {
    return -ENOMEM;
  }
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

// Appends a byte value to the record's store. The store grows to its exact new size, unless it
// was reserved with room for that.
int32_t AppendBytes(KmParams* record, const keymaster_blob_t& value, uint32_t reserved) {
  const uint32_t size = record->data_len + static_cast<uint32_t>(value.data_length);
  if (size == 0 || size < record->data_len) {
    return -EINVAL;
  }
  MallocBuffer grown;
  uint8_t* store = record->data;
  if (size > reserved) {
    grown = AllocateBytes(size);
    store = grown.get();
    if (store == nullptr ||
        (record->data_len != 0 && memcpy_s(store, size, record->data, record->data_len) != 0)) {
      return -ENOMEM;
    }
  }
  // A length of 2^32 or more fails here: it is above the room left.
  if (memcpy_s(store + record->data_len, size - record->data_len, value.data, value.data_length) !=
      0) {
    return -ENOMEM;
  }
  if (grown != nullptr) {
    free(record->data);
    record->data = grown.release();
  }
  record->data_len = size;
  return 0;
}

int32_t AddParam(KmParams* record, const keymaster_key_param_t& param, uint32_t reserved) {
  if (record->len == record->capacity) {
    const int32_t result = GrowSlots(record);
    if (result != 0) {
      return result;
    }
  }
  KmParamEntry* entry = &record->params[record->len];
  EncodeEntry(param, entry);
  if (IsByteValued(param.tag) && param.blob.data_length != 0) {
    SetEntryOffset(entry, record->data_len);
    const int32_t result = AppendBytes(record, param.blob, reserved);
    if (result != 0) {
      return result;
    }
  }
  ++record->len;
  return 0;
}

// ListBuilder builds one list of a whole set. It is measured before it is filled, so that a long
// list is not moved each time it grows.
class ListBuilder {
 public:
  KmParams* record() { return &owner_.record; }

  void Measure(const keymaster_key_param_t& param) {
    ++entries_;
    if (IsByteValued(param.tag)) {
      bytes_ += static_cast<uint32_t>(param.blob.data_length);
    }
  }
  // A list too long for its counters is not reserved: adding to it will fail.
  bool Reserve() {
    KmParams* record = &owner_.record;
    if (entries_ > record->capacity && entries_ < kMaxEntries) {
      free(record->params);
      record->params = AllocateSlots(static_cast<uint32_t>(entries_));
      record->capacity = static_cast<uint32_t>(entries_);
      if (record->params == nullptr) {
        return false;
      }
    }
    if (bytes_ != 0 && bytes_ <= UINT32_MAX) {
      reserved_ = static_cast<uint32_t>(bytes_);
      record->data = AllocateBytes(reserved_).release();
      return record->data != nullptr;
    }
    return true;
  }
  bool Add(const keymaster_key_param_t& param) {
    return AddParam(&owner_.record, param, reserved_) == 0;
  }

 private:
  KmParamsOwner owner_;
  size_t entries_ = 0;
  uint64_t bytes_ = 0;
  uint32_t reserved_ = 0;
};

// Adds to a 32-bit total; false when it would wrap.
bool Accumulate(uint64_t amount, uint32_t* total) {
  const uint64_t sum = *total + amount;
  if (sum > UINT32_MAX) {
    return false;
  }
  *total = static_cast<uint32_t>(sum);
  return true;
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
    if (count == 0) {
      return true;
    }
    if (memcpy_s(at_, room_, bytes, count) != 0) {
      return false;
    }
    at_ += count;
    room_ -= count;
    return true;
  }

 private:
  uint8_t* at_;
  size_t room_;
};

void RebaseOffsets(KmParams* record, uint32_t base) {
  for (uint32_t i = 0; i < record->len; ++i) {
    KmParamEntry* entry = &record->params[i];
    if (IsByteValued(EntryTag(entry->bytes))) {
      SetEntryOffset(entry, EntryOffset(entry->bytes) + base);
    }
  }
}

size_t EntryBytes(const KmParams& record) {
  return static_cast<size_t>(record.len) * sizeof(KmParamEntry);
}

bool WriteLists(const KmParams& first, KmParams* second, BufferWriter* writer) {
  if (!writer->WriteU32(first.len) || !writer->Write(first.params, EntryBytes(first)) ||
      !writer->WriteU32(second->len)) {
    return false;
  }
  if (first.data_len != 0) {
    RebaseOffsets(second, first.data_len);
  }
  return writer->Write(second->params, EntryBytes(*second)) &&
         writer->Write(first.data, first.data_len) && writer->Write(second->data, second->data_len);
}

}  // namespace

int32_t InitKmParams(KmParams* km_params) {
  if (km_params == nullptr) {
    KM_LOGE("km_params is null, please check!\n");
    return -ENOMEM;
  }
  if (memset_s(km_params, sizeof(*km_params), 0, sizeof(*km_params)) != 0) {
    return -ENOMEM;
  }
  km_params->capacity = kSlotStep;
  km_params->params = AllocateSlots(kSlotStep);
  return km_params->params != nullptr ? 0 : -ENOMEM;
}

int32_t AddKmParams(KmParams* km_params, const keymaster_key_param_t* param) {
  if (km_params == nullptr || param == nullptr) {
    return -EINVAL;
  }
  return AddParam(km_params, *param, 0);
}

int32_t SerializeKmParams(const KmParams* first, KmParams* second, uint8_t** out,
                          uint32_t* out_len) {
  if (second == nullptr || out == nullptr || out_len == nullptr) {
    return -EINVAL;
  }
  const KmParams absent = {};
  const KmParams& leading = first != nullptr ? *first : absent;
  uint32_t total = 2 * sizeof(uint32_t);
  if (!Accumulate(EntryBytes(leading), &total) || !Accumulate(EntryBytes(*second), &total) ||
      !Accumulate(leading.data_len, &total) || !Accumulate(second->data_len, &total)) {
    return -ENOMEM;
  }
  MallocBuffer buffer = AllocateBytes(total);
  if (buffer == nullptr) {
    return -ENOMEM;
  }
  BufferWriter writer(buffer.get(), total);
  if (!WriteLists(leading, second, &writer)) {
    return -ENOMEM;
  }
  *out = buffer.release();
  *out_len = total;
  return 0;
}

void FreeKmParams(KmParams* km_params) {
  if (km_params == nullptr) {
    return;
  }
  free(km_params->params);
  free(km_params->data);
  km_params->params = nullptr;
  km_params->data = nullptr;
}

int32_t BuildKmParams(const keymaster_key_param_set_t* params, uint8_t** out, uint32_t* out_len) {
  if (params == nullptr || out == nullptr || out_len == nullptr ||
      (params->length != 0 && params->params == nullptr)) {
    return -EINVAL;
  }
  ListBuilder first;
  ListBuilder second;
  if (InitKmParams(first.record()) != 0 || InitKmParams(second.record()) != 0) {
    return -ENOMEM;
  }
  const auto list_of = [&](const keymaster_key_param_t& param) {
    return IsKeyDefinitionTag(param.tag) ? &first : &second;
  };
  for (size_t i = 0; i < params->length; ++i) {
    list_of(params->params[i])->Measure(params->params[i]);
  }
  if (!first.Reserve() || !second.Reserve()) {
    return -ENOMEM;
  }
  for (size_t i = 0; i < params->length; ++i) {
    if (!list_of(params->params[i])->Add(params->params[i])) {
      return -ENOMEM;
    }
  }
  return SerializeKmParams(first.record(), second.record(), out, out_len) == 0 ? 0 : -ENOMEM;
}

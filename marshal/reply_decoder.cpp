// The TA's replies in the wire form of key parameters, back into platform structures.

#include <errno.h>
#include <securec.h>

#include "keymaster_ts.h"
#include "marshal/param_entry.h"
#include "marshal/param_set.h"
#include "marshal/reply_reader.h"
#include "wire/log.h"
#include "wire/malloc_buffer.h"

using namespace km41;

namespace {

// The largest list whose decoded array stays below 2^32 bytes.
constexpr uint32_t kMaxListCount = 0x0AAAAAAA;

uint64_t EntriesSize(uint32_t count) { return static_cast<uint64_t>(count) * kParamEntrySize; }

// The decoded array of count entries, byte values still empty; null when memory runs out.
keymaster_key_param_t* DecodeEntries(const uint8_t* entries, uint32_t count) {
  keymaster_key_param_t* const params = Allocate<keymaster_key_param_t>(count).release();
  if (params == nullptr) return nullptr;
  for (uint32_t i = 0; i < count; ++i) {
    DecodeEntry(entries + EntriesSize(i), &params[i]);
  }
  return params;
}

// Copies one byte value out of the blob area that reader still holds.
int32_t ResolveBlob(const uint8_t* entry, const ReplyReader& area, keymaster_blob_t* blob) {
  const uint32_t length = EntryLength(entry);
  if (length == 0) return 0;
  const uint8_t* bytes = nullptr;
  if (!area.BytesAt(EntryOffset(entry), length, &bytes)) return -EINVAL;
  MallocBuffer copy = AllocateBytes(length);
  if (copy == nullptr || memcpy_s(copy.get(), length, bytes, length) != 0) return -ENOMEM;
  blob->data = copy.release();
  blob->data_length = length;
  return 0;
}

// Fills in the byte values of a decoded list. After a failure the list may hold some of them; its
// owner releases it.
int32_t ResolveBlobs(const uint8_t* entries, const ReplyReader& area,
                     keymaster_key_param_set_t* set) {
  if (entries == nullptr) return 0;  // an empty list
  for (size_t i = 0; i < set->length; ++i) {
    keymaster_key_param_t* param = &set->params[i];
    if (!IsByteValued(param->tag)) continue;
    const int32_t result = ResolveBlob(entries + i * kParamEntrySize, area, &param->blob);
    if (result != 0) return result;
  }
  return 0;
}

// One counted list of a characteristics reply, as far as it could be read.
struct WireList {
  bool has_count = false;
  bool overruns = false;
  uint32_t count = 0;
  const uint8_t* entries = nullptr;
};

// Reads the count and the entries of a list and decodes them into set, byte values still empty.
int32_t ReadList(ReplyReader* reader, WireList* list, keymaster_key_param_set_t* set) {
  list->has_count = reader->ReadU32(&list->count);
  if (!list->has_count || list->count > kMaxListCount) return -EINVAL;
  if (list->count == 0) return 0;
  list->overruns = !reader->ReadBytes(EntriesSize(list->count), &list->entries);
  if (list->overruns) return -EINVAL;
  set->params = DecodeEntries(list->entries, list->count);
  if (set->params == nullptr) return -ENOMEM;
  set->length = list->count;
  return 0;
}

int32_t ReadHwEnforced(ReplyReader* reader, uint32_t reply_len, WireList* list,
                       keymaster_key_param_set_t* set) {
  const int32_t result = ReadList(reader, list, set);
  if (list->overruns) {
    KM_LOGE("1 invalid key character size, %u-%u-%u", reader->position(), list->count, reply_len);
  }
  if (result != 0) KM_LOGE("Proc hw enforce failed, err=%d", result);
  return result;
}

int32_t ReadSwEnforced(ReplyReader* reader, uint32_t reply_len, WireList* list,
                       keymaster_key_param_set_t* set) {
  const int32_t result = ReadList(reader, list, set);
  if (!list->has_count) {
    KM_LOGE("2 invalid key character size, %u-%u", reader->position(), reply_len);
  } else if (list->overruns) {
    KM_LOGE("3 invalid key character size, %u-%u-%u", reader->position(), list->count, reply_len);
  }
  return result;
}

int32_t DecodeLists(const uint8_t* reply, uint32_t reply_len,
                    keymaster_key_characteristics_t* characteristics) {
  ReplyReader reader(reply, reply_len);
  WireList hw;
  WireList sw;
  int32_t result = ReadHwEnforced(&reader, reply_len, &hw, &characteristics->hw_enforced);
  if (result != 0) return result;
  result = ReadSwEnforced(&reader, reply_len, &sw, &characteristics->sw_enforced);
  if (result != 0) return result;
  const ReplyReader area(reader.rest(), reader.remaining());
  if (ResolveBlobs(hw.entries, area, &characteristics->hw_enforced) != 0 ||
      ResolveBlobs(sw.entries, area, &characteristics->sw_enforced) != 0) {
    return -ENOMEM;
  }
  return 0;
}

int32_t DecodeParamSet(keymaster_key_param_set_t* set, uint32_t count, uint32_t reply_len,
                       ReplyReader* reader) {
  // The reply is measured before the array is allocated, so that a lying count costs nothing.
  const uint8_t* entries = nullptr;
  if (!reader->ReadBytes(EntriesSize(count), &entries)) {
    KM_LOGE("invalid copy size, %u-%u", count, reply_len);
    return -ENOMEM;
  }
  set->params = DecodeEntries(entries, count);
  if (set->params == nullptr) return -ENOMEM;
  set->length = count;
  const ReplyReader area(reader->rest(), reader->remaining());
  return ResolveBlobs(entries, area, set) == 0 ? 0 : -ENOMEM;
}

}  // namespace

int32_t BuildKeyCharacter(const uint8_t* reply, uint32_t reply_len,
                          keymaster_key_characteristics_t* characteristics) {
  if (reply == nullptr || characteristics == nullptr) return -EINVAL;
  if (reply_len < sizeof(uint32_t)) {
    KM_LOGE("key_character_len too small, len=%u", reply_len);
    return -EINVAL;
  }
  *characteristics = keymaster_key_characteristics_t{};
  const int32_t result = DecodeLists(reply, reply_len, characteristics);
  if (result != 0) ReleaseCharacteristics(characteristics);
  return result;
}

int32_t BuildKeyParamSet(keymaster_key_param_set_t* param_set, const uint8_t* reply,
                         uint32_t reply_len) {
  if (param_set == nullptr || reply == nullptr) return -EINVAL;
  ReplyReader reader(reply, reply_len);
  uint32_t count = 0;
  if (!reader.ReadU32(&count)) {
    KM_LOGE("param_len too samll(%u)", reply_len);
    return -EINVAL;
  }
  // What the caller left in the set is not released on a failure below.
  *param_set = keymaster_key_param_set_t{};
  if (count == 0) return 0;
  const int32_t result = DecodeParamSet(param_set, count, reply_len, &reader);
  if (result != 0) ReleaseParamSet(param_set);
  return result;
}

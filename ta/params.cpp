#include "ta/params.h"

#include <algorithm>

namespace ta {
namespace {

constexpr size_t kEntrySize = 16;

// How much of an entry's value counts, by the type of its tag.
uint64_t ValueOf(uint32_t tag, uint64_t value) {
  switch (static_cast<keymaster_tag_type_t>(tag & 0xF0000000)) {
    case KM_ENUM:
    case KM_ENUM_REP:
    case KM_UINT:
    case KM_UINT_REP:
      return static_cast<uint32_t>(value);
    case KM_ULONG:
    case KM_ULONG_REP:
    case KM_DATE:
      return value;
    case KM_BOOL:
      return (value & 0xFF) != 0 ? 1 : 0;
    default:
      return 0;
  }
}

// An entry as it stands in the buffer: byte values are still an offset and a length.
struct RawEntry {
  uint32_t tag = 0;
  uint64_t value = 0;
};

bool TakeEntries(ByteReader* reader, std::vector<RawEntry>* entries) {
  uint32_t count = 0;
  if (!reader->TakeU32(&count) || count > reader->remaining() / kEntrySize) return false;
  entries->resize(count);
  for (RawEntry& entry : *entries) {
    uint32_t reserved = 0;
    if (!reader->TakeU32(&entry.tag) || !reader->TakeU32(&reserved) ||
        !reader->TakeU64(&entry.value)) {
      return false;
    }
  }
  return true;
}

// budget is how many bytes of the area the values may still take, together: values that share bytes
// would let a small request ask for any amount of memory.
bool Resolve(const std::vector<RawEntry>& entries, ByteView blobs, size_t* budget, ParamSet* out) {
  for (const RawEntry& entry : entries) {
    if (!IsByteValued(entry.tag)) {
      out->Add(entry.tag, ValueOf(entry.tag, entry.value));
      continue;
    }
    const size_t offset = static_cast<uint32_t>(entry.value);
    const size_t length = static_cast<size_t>(entry.value >> 32);
    // An empty value has no place in the blob area, whatever its offset says.
    if (length != 0 && (offset > blobs.size || length > blobs.size - offset)) return false;
    if (length > *budget) return false;
    *budget -= length;
    out->AddBytes(entry.tag, length == 0 ? ByteView() : ByteView(blobs.data + offset, length));
  }
  return true;
}

void AppendEntries(const ParamSet& params, Bytes* entries, Bytes* blobs) {
  AppendU32(entries, static_cast<uint32_t>(params.size()));
  for (const Param& param : params) {
    AppendU32(entries, param.tag);
    AppendU32(entries, 0);
    if (!IsByteValued(param.tag)) {
      AppendU64(entries, param.value);
      continue;
    }
    AppendU32(entries, static_cast<uint32_t>(blobs->size()));
    AppendU32(entries, static_cast<uint32_t>(param.bytes.size()));
    AppendBytes(blobs, param.bytes);
  }
}

}  // namespace

bool IsByteValued(uint32_t tag) { return tag >> 28 == 8 || tag >> 28 == 9; }

void ParamSet::Remove(Tag tag) {
  params_.erase(std::remove_if(params_.begin(), params_.end(),
                               [tag](const Param& param) { return param.tag == tag; }),
                params_.end());
}

void ParamSet::Set(Tag tag, uint64_t value) {
  Remove(tag);
  Add(tag, value);
}

const Param* ParamSet::Find(Tag tag) const {
  for (const Param& param : params_) {
    if (param.tag == tag) return &param;
  }
  return nullptr;
}

size_t ParamSet::Count(Tag tag) const {
  return static_cast<size_t>(std::count_if(params_.begin(), params_.end(),
                                           [tag](const Param& param) { return param.tag == tag; }));
}

bool ParamSet::Contains(Tag tag, uint64_t value) const {
  return std::any_of(params_.begin(), params_.end(), [tag, value](const Param& param) {
    return param.tag == tag && param.value == value;
  });
}

bool ParamSet::IsTrue(Tag tag) const {
  const Param* param = Find(tag);
  return param != nullptr && param->value != 0;
}

std::optional<uint64_t> ParamSet::Value(Tag tag) const {
  const Param* param = Find(tag);
  return param == nullptr ? std::nullopt : std::optional<uint64_t>(param->value);
}

ByteView ParamSet::BytesOf(Tag tag) const {
  const Param* param = Find(tag);
  return param == nullptr ? ByteView() : ByteView(param->bytes);
}

bool ParseTwoLists(ByteView wire, ParamSet* first, ParamSet* second) {
  ByteReader reader(wire);
  std::vector<RawEntry> first_entries;
  std::vector<RawEntry> second_entries;
  if (!TakeEntries(&reader, &first_entries) || !TakeEntries(&reader, &second_entries)) return false;
  size_t budget = reader.remaining();
  return Resolve(first_entries, reader.rest(), &budget, first) &&
         Resolve(second_entries, reader.rest(), &budget, second);
}

bool ParseTwoLists(ByteView wire, ParamSet* out) { return ParseTwoLists(wire, out, out); }

Bytes Serialize(std::initializer_list<const ParamSet*> lists) {
  Bytes wire;
  Bytes blobs;
  for (const ParamSet* list : lists) {
    AppendEntries(*list, &wire, &blobs);
  }
  AppendBytes(&wire, blobs);
  return wire;
}

}  // namespace ta

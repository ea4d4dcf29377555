#include "ta/params.h"

#include <algorithm>

namespace ta {
namespace {

constexpr size_t kEntrySize = 16;

// How much of an entry's value counts, by the type of its tag.
uint64_t ValueOf(Tag tag, uint64_t value) {
  switch (keymaster_tag_get_type(tag)) {
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

bool TakeEntries(ByteReader* reader, ByteView* entries) {
  uint32_t count = 0;
  return reader->TakeInteger(&count) && count <= reader->remaining() / kEntrySize &&
         reader->TakeBytes(count * kEntrySize, entries);
}

// In the entries byte values are an offset and a length. budget is how many bytes of the area the
// values may still take, together: values that share bytes would let a small request ask for any
// amount of memory.
bool Resolve(ByteView entries, ByteView blobs, size_t* budget, ParamSet* out) {
  ByteReader reader(entries);
  uint32_t number = 0, reserved = 0;
  uint64_t value = 0;
  while (reader.TakeInteger(&number) && reader.TakeInteger(&reserved) &&
         reader.TakeInteger(&value)) {
    const auto tag = static_cast<Tag>(number);
    if (!IsByteValued(tag)) {
      out->Add(tag, ValueOf(tag, value));
      continue;
    }
    const size_t offset = static_cast<uint32_t>(value);
    const size_t length = static_cast<size_t>(value >> 32);
    // An empty value has no place in the blob area, whatever its offset says.
    if (length != 0 && (offset > blobs.size || length > blobs.size - offset)) return false;
    if (length > *budget) return false;
    *budget -= length;
    out->AddBytes(tag, length == 0 ? ByteView() : ByteView(blobs.data + offset, length));
  }
  return true;
}

void AppendEntries(const ParamSet& params, Bytes* entries, Bytes* blobs) {
  AppendInteger<uint32_t>(entries, static_cast<uint32_t>(params.size()));
  for (const Param& param : params) {
    AppendInteger<uint32_t>(entries, param.tag);
    AppendInteger<uint32_t>(entries, 0);
    if (!IsByteValued(param.tag)) {
      AppendInteger<uint64_t>(entries, param.value);
      continue;
    }
    AppendInteger<uint32_t>(entries, static_cast<uint32_t>(blobs->size()));
    AppendInteger<uint32_t>(entries, static_cast<uint32_t>(param.bytes.size()));
    AppendBytes(blobs, param.bytes);
  }
}

}  // namespace

bool IsByteValued(Tag tag) {
  const keymaster_tag_type_t type = keymaster_tag_get_type(tag);
  return type == KM_BIGNUM || type == KM_BYTES;
}

void ParamSet::Remove(Tag tag) {
  erase(std::remove_if(begin(), end(), [tag](const Param& param) { return param.tag == tag; }),
        end());
}

void ParamSet::Set(Tag tag, uint64_t value) {
  Remove(tag);
  Add(tag, value);
}

const Param* ParamSet::Find(Tag tag) const {
  for (const Param& param : *this) {
    if (param.tag == tag) return &param;
  }
  return nullptr;
}

size_t ParamSet::Count(Tag tag) const {
  return static_cast<size_t>(
      std::count_if(begin(), end(), [tag](const Param& param) { return param.tag == tag; }));
}

bool ParamSet::Contains(Tag tag, uint64_t value) const {
  return std::any_of(begin(), end(), [tag, value](const Param& param) {
    return param.tag == tag && param.value == value;
  });
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
  ByteView first_entries, second_entries;
  if (!TakeEntries(&reader, &first_entries) || !TakeEntries(&reader, &second_entries)) return false;
  size_t budget = reader.remaining();
  return Resolve(first_entries, reader.rest(), &budget, first) &&
         Resolve(second_entries, reader.rest(), &budget, second);
}

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

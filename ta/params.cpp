#include "params.h"

#include <algorithm>

namespace ta {
namespace {

constexpr size_t kEntrySize = 16;

enum class ValueKind { kNone, kWord, kLong, kBool, kBytes };

ValueKind KindOf(uint32_t tag) {
  constexpr ValueKind kKinds[16] = {
      ValueKind::kNone,  ValueKind::kWord,  ValueKind::kWord, ValueKind::kWord,
      ValueKind::kWord,  ValueKind::kLong,  ValueKind::kLong, ValueKind::kBool,
      ValueKind::kBytes, ValueKind::kBytes, ValueKind::kLong, ValueKind::kNone,
      ValueKind::kNone,  ValueKind::kNone,  ValueKind::kNone, ValueKind::kNone};
  return kKinds[tag >> 28];
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

bool Resolve(const std::vector<RawEntry>& entries, ByteView blobs, ParamSet* out) {
  for (const RawEntry& entry : entries) {
    switch (KindOf(entry.tag)) {
      case ValueKind::kNone:
        out->Add(entry.tag, 0);
        break;
      case ValueKind::kWord:
        out->Add(entry.tag, static_cast<uint32_t>(entry.value));
        break;
      case ValueKind::kLong:
        out->Add(entry.tag, entry.value);
        break;
      case ValueKind::kBool:
        out->Add(entry.tag, (entry.value & 0xFF) != 0 ? 1 : 0);
        break;
      case ValueKind::kBytes: {
        const size_t offset = static_cast<uint32_t>(entry.value);
        const size_t length = static_cast<size_t>(entry.value >> 32);
        // An empty value has no place in the blob area, whatever its offset says.
        if (length != 0 && (offset > blobs.size || length > blobs.size - offset)) return false;
        out->AddBytes(entry.tag, length == 0 ? ByteView() : ByteView(blobs.data + offset, length));
        break;
      }
    }
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

bool IsByteValued(uint32_t tag) { return KindOf(tag) == ValueKind::kBytes; }

void ParamSet::Remove(uint32_t tag) {
  params_.erase(std::remove_if(params_.begin(), params_.end(),
                               [tag](const Param& param) { return param.tag == tag; }),
                params_.end());
}

void ParamSet::Set(uint32_t tag, uint64_t value) {
  Remove(tag);
  Add(tag, value);
}

const Param* ParamSet::Find(uint32_t tag) const {
  for (const Param& param : params_) {
    if (param.tag == tag) return &param;
  }
  return nullptr;
}

bool ParamSet::Contains(uint32_t tag, uint64_t value) const {
  return std::any_of(params_.begin(), params_.end(), [tag, value](const Param& param) {
    return param.tag == tag && param.value == value;
  });
}

bool ParamSet::IsTrue(uint32_t tag) const {
  const Param* param = Find(tag);
  return param != nullptr && param->value != 0;
}

std::optional<uint64_t> ParamSet::Value(uint32_t tag) const {
  const Param* param = Find(tag);
  return param == nullptr ? std::nullopt : std::optional<uint64_t>(param->value);
}

ByteView ParamSet::BytesOf(uint32_t tag) const {
  const Param* param = Find(tag);
  return param == nullptr ? ByteView() : ByteView(param->bytes);
}

bool ParseTwoLists(ByteView wire, ParamSet* first, ParamSet* second) {
  ByteReader reader(wire);
  std::vector<RawEntry> first_entries;
  std::vector<RawEntry> second_entries;
  return TakeEntries(&reader, &first_entries) && TakeEntries(&reader, &second_entries) &&
         Resolve(first_entries, reader.rest(), first) &&
         Resolve(second_entries, reader.rest(), second);
}

bool ParseTwoLists(ByteView wire, ParamSet* out) { return ParseTwoLists(wire, out, out); }

Bytes SerializeOneList(const ParamSet& params) {
  Bytes wire;
  Bytes blobs;
  AppendEntries(params, &wire, &blobs);
  AppendBytes(&wire, blobs);
  return wire;
}

Bytes SerializeTwoLists(const ParamSet& first, const ParamSet& second) {
  Bytes wire;
  Bytes blobs;
  AppendEntries(first, &wire, &blobs);
  AppendEntries(second, &wire, &blobs);
  AppendBytes(&wire, blobs);
  return wire;
}

}  // namespace ta

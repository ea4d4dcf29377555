#include "platform/tee_client/param_trace.h"

#include <hardware/keymaster_defs.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/tee_client/trace_names.h"

namespace {

constexpr uint64_t kCountSize = 4;
constexpr uint64_t kEntrySize = 16;

uint64_t ReadLe(const uint8_t* at, uint32_t width) {
  uint64_t value = 0;
  std::memcpy(&value, at, width);
  return value;
}

struct Blobs {
  const uint8_t* data;
  uint64_t size;
  bool with_secrets;
};

std::string BytesText(uint32_t tag, uint64_t offset, uint64_t length, const Blobs& blobs) {
  std::string text = std::to_string(length) + " bytes";
  if (length == 0) return text;
  if (offset > blobs.size || length > blobs.size - offset) return text + " outside the buffer";
  if (IsSecretTag(tag) && !blobs.with_secrets) return text;
  return text + " " + FirstBytes(blobs.data + offset, static_cast<uint32_t>(length));
}

std::string ValueText(uint32_t tag, const uint8_t* value, const Blobs& blobs) {
  const auto type = static_cast<keymaster_tag_type_t>(tag & 0xF0000000);
  if (type == KM_BYTES || type == KM_BIGNUM) {
    return BytesText(tag, ReadLe(value, 4), ReadLe(value + 4, 4), blobs);
  }
  if (type == KM_BOOL) return value[0] != 0 ? "true" : "false";
  const bool is_long = type == KM_ULONG || type == KM_ULONG_REP || type == KM_DATE;
  return std::to_string(ReadLe(value, is_long ? 8 : 4));
}

}  // namespace

std::string Hex(const uint8_t* data, uint32_t size) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (uint32_t i = 0; i < size; ++i) {
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 0xF];
  }
  return text;
}

std::string FirstBytes(const uint8_t* data, uint32_t size) {
  constexpr uint32_t kShown = 16;
  return Hex(data, std::min(size, kShown)) + (size > kShown ? ".." : "");
}

std::string DecodeKeyParams(const std::string& label, const uint8_t* data, uint32_t size,
                            uint32_t lists, bool with_secrets) {
  std::vector<std::pair<uint32_t, const uint8_t*>> entries;  // and the list that each is in
  uint64_t position = 0;
  for (uint32_t list = 1; list <= lists; ++list) {
    const uint64_t left = size - position;
    const uint64_t count = left < kCountSize ? 0 : ReadLe(data + position, kCountSize);
    if (left < kCountSize || count > (left - kCountSize) / kEntrySize) {
      return label + " is no list of parameters\n";
    }
    position += kCountSize;
    for (uint64_t i = 0; i < count; ++i, position += kEntrySize) {
      entries.emplace_back(list, data + position);
    }
  }
  const Blobs blobs = {data + position, size - position, with_secrets};
  std::string text;
  for (const auto& [list, entry] : entries) {
    const auto tag = static_cast<uint32_t>(ReadLe(entry, 4));
    text += label + " list " + std::to_string(list) + ": " + NameOfTag(tag) + " = " +
            ValueText(tag, entry + 8, blobs) + "\n";
  }
  return text;
}

// Parameters to bytes and back: what is decoded must be what was serialised, but for what the wire
// form does not carry.
#include <keymaster_ts.h>

#include <set>

#include "fuzz/input.h"

namespace {

using fuzz::Bytes;
using fuzz::Check;
using List = std::vector<keymaster_key_param_t>;

constexpr size_t kMostParams = 300;

bool DefinesKey(keymaster_tag_t tag) {
  static const std::set<keymaster_tag_t> tags = {
      KM_TAG_ALGORITHM,       KM_TAG_KEY_SIZE,
      KM_TAG_PURPOSE,         KM_TAG_RSA_PUBLIC_EXPONENT,
      KM_TAG_BLOCK_MODE,      KM_TAG_DIGEST,
      KM_TAG_PADDING,         KM_TAG_EC_CURVE,
      KM_TAG_CALLER_NONCE,    KM_TAG_BLOB_USAGE_REQUIREMENTS,
      KM_TAG_BOOTLOADER_ONLY, KM_TAG_ROLLBACK_RESISTANCE,
  };
  return tags.count(tag) != 0;
}

bool SameValue(const keymaster_key_param_t& given, const keymaster_key_param_t& decoded) {
  if (fuzz::HasBytes(given.tag)) {
    const size_t length = given.blob.data_length;
    return decoded.blob.data_length == length && (decoded.blob.data == nullptr) == (length == 0) &&
           (length == 0 || memcmp(decoded.blob.data, given.blob.data, length) == 0);
  }
  if (fuzz::HasU64(given.tag)) return decoded.long_integer == given.long_integer;
  switch (fuzz::TypeOf(given.tag)) {
    case 1:
    case 2:
    case 3:
    case 4:
      return decoded.integer == given.integer;
    case 7:
      return decoded.boolean == ((given.integer & 0xFF) != 0);
    default:
      return true;
  }
}

void CheckSame(const List& given, const keymaster_key_param_set_t& decoded) {
  Check(decoded.length == given.size(), "as many parameters as were serialised");
  for (size_t i = 0; i < given.size(); ++i) {
    Check(decoded.params[i].tag == given[i].tag, "the tags, in order");
    Check(SameValue(given[i], decoded.params[i]), "the values");
  }
}

// Decodes one list of the buffer on its own, as operations' replies come.
void CheckOneList(const List& given, const Bytes& entries, const Bytes& area) {
  Bytes reply = entries;
  reply.insert(reply.end(), area.begin(), area.end());
  keymaster_key_param_set_t set = {};
  Check(BuildKeyParamSet(&set, reply.data(), static_cast<uint32_t>(reply.size())) == 0,
        "one list decodes");
  CheckSame(given, set);
  fuzz::Release(&set);
}

// Serialises two lists, made by adding one parameter at a time.
Bytes AddOneByOne(const List (&given)[2]) {
  KmParams lists[2];
  for (int i = 0; i < 2; ++i) {
    Check(InitKmParams(&lists[i]) == 0, "a new list");
    for (const keymaster_key_param_t& param : given[i]) {
      Check(AddKmParams(&lists[i], &param) == 0, "a parameter is added");
    }
  }
  uint8_t* buffer = nullptr;
  uint32_t size = 0;
  Check(SerializeKmParams(&lists[0], &lists[1], &buffer, &size) == 0, "both are serialised");
  const Bytes out(buffer, buffer + size);
  free(buffer);
  for (KmParams& list : lists) FreeKmParams(&list);
  return out;
}

void CheckTwoLists(const List (&given)[2], const uint8_t* buffer, uint32_t length) {
  keymaster_key_characteristics_t decoded = {};
  Check(BuildKeyCharacter(buffer, length, &decoded) == 0, "what is serialised decodes");
  CheckSame(given[0], decoded.hw_enforced);
  CheckSame(given[1], decoded.sw_enforced);
  fuzz::Release(&decoded);
}

// No tag of the first list carries bytes, but a list that a caller makes may.
void CheckAnySplit(const List& params) {
  List halves[2];
  for (size_t i = 0; i < params.size(); ++i) halves[i % 2].push_back(params[i]);
  const Bytes buffer = AddOneByOne(halves);
  CheckTwoLists(halves, buffer.data(), static_cast<uint32_t>(buffer.size()));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  fuzz::ParamList list = fuzz::TakeParams(&input, kMostParams);
  List given[2];
  for (const keymaster_key_param_t& param : list.params) {
    given[DefinesKey(param.tag) ? 0 : 1].push_back(param);
  }
  uint8_t* buffer = nullptr;
  uint32_t length = 0;
  const keymaster_key_param_set_t set = list.set();
  Check(BuildKmParams(&set, &buffer, &length) == 0, "any set is serialised");

  CheckTwoLists(given, buffer, length);
  const uint8_t* second = buffer + 4 + 16 * given[0].size();
  const uint8_t* area = second + 4 + 16 * given[1].size();
  const Bytes values(area, static_cast<const uint8_t*>(buffer) + length);
  CheckOneList(given[0], Bytes(static_cast<const uint8_t*>(buffer), second), values);
  CheckOneList(given[1], Bytes(second, area), values);
  const Bytes added = AddOneByOne(given);
  Check(added.size() == length && memcmp(added.data(), buffer, length) == 0,
        "one by one gives the same bytes");
  CheckAnySplit(list.params);
  free(buffer);
  return 0;
}

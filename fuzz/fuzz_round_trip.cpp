// Parameters to bytes and back: what is decoded must be what was serialised, but for what the wire
// form does not carry.
#include <keymaster_ts.h>

#include <set>

#include "fuzz/serve.h"
#include "wire/ta_protocol.h"

namespace {

using fuzz::Bytes;
using fuzz::Check;
using fuzz::Params;

constexpr size_t kMostParams = 300;

bool DefinesKey(uint32_t tag) {
  static const std::set<uint32_t> tags = {KM_TAG_ALGORITHM,       KM_TAG_KEY_SIZE,
                                          KM_TAG_PURPOSE,         KM_TAG_RSA_PUBLIC_EXPONENT,
                                          KM_TAG_BLOCK_MODE,      KM_TAG_DIGEST,
                                          KM_TAG_PADDING,         KM_TAG_EC_CURVE,
                                          KM_TAG_CALLER_NONCE,    KM_TAG_BLOB_USAGE_REQUIREMENTS,
                                          KM_TAG_BOOTLOADER_ONLY, KM_TAG_ROLLBACK_RESISTANCE};
  return tags.count(tag) != 0;
}

keymaster_key_param_t PlatformParam(const test::Param& param) {
  keymaster_key_param_t out = {};
  out.tag = static_cast<keymaster_tag_t>(param.tag);
  if (!test::IsByteValued(param.tag)) {
    out.long_integer = std::get<uint64_t>(param.value);
  } else if (const Bytes& bytes = std::get<Bytes>(param.value); !bytes.empty()) {
    out.blob = test::Blob(bytes);
  }
  return out;
}

// How many bytes of a number each kind of tag carries, by the tag's top four bits.
constexpr int kWidths[16] = {0, 4, 4, 4, 4, 8, 8, 1, 0, 0, 8};

bool SameValue(const test::Param& sent, const keymaster_key_param_t& decoded) {
  if (test::IsByteValued(sent.tag)) {
    return test::BlobBytes(decoded.blob) == std::get<Bytes>(sent.value) &&
           (decoded.blob.data == nullptr) == (decoded.blob.data_length == 0);
  }
  const int width = kWidths[sent.tag >> 28];
  uint64_t carried = 0;
  memcpy(&carried, &std::get<uint64_t>(sent.value), static_cast<size_t>(width));
  const bool flag = width == 1;
  return width == 0 || test::NumberOf(decoded) == (flag ? uint64_t{carried != 0} : carried);
}

void CheckSame(const Params& sent, const keymaster_key_param_set_t& decoded) {
  Check(decoded.length == sent.size(), "as many parameters as were serialised");
  for (size_t i = 0; i < sent.size(); ++i) {
    Check(static_cast<uint32_t>(decoded.params[i].tag) == sent[i].tag, "the tags, in order");
    Check(SameValue(sent[i], decoded.params[i]), "the values");
  }
}

// Decodes one list on its own, as operations' replies come.
void CheckOneList(const Params& sent, const Bytes& reply) {
  test::Outputs outputs;
  outputs.params = {};
  Check(BuildKeyParamSet(&outputs.params, reply.data(), static_cast<uint32_t>(reply.size())) == 0,
        "one list decodes");
  CheckSame(sent, outputs.params);
  fuzz::Judge(&outputs, test::kParams, 0);
}

void CheckTwoLists(const Params (&sent)[2], const Bytes& wire) {
  test::Outputs outputs;
  keymaster_key_characteristics_t& decoded = outputs.characteristics = {};
  Check(BuildKeyCharacter(wire.data(), static_cast<uint32_t>(wire.size()), &decoded) == 0,
        "what is serialised decodes");
  CheckSame(sent[0], decoded.hw_enforced);
  CheckSame(sent[1], decoded.sw_enforced);
  fuzz::Judge(&outputs, test::kCharacteristics, 0);
}

Bytes Released(uint8_t* buffer, uint32_t size) {
  const Bytes out(buffer, buffer + size);
  free(buffer);
  return out;
}

// Serialises two lists, made by adding one parameter at a time.
Bytes AddOneByOne(const Params (&given)[2]) {
  KmParams lists[2];
  for (int i = 0; i < 2; ++i) {
    Check(InitKmParams(&lists[i]) == 0, "a new list");
    for (const test::Param& param : given[i]) {
      const keymaster_key_param_t added = PlatformParam(param);
      Check(AddKmParams(&lists[i], &added) == 0, "a parameter is added");
    }
  }
  uint8_t* buffer = nullptr;
  uint32_t size = 0;
  Check(SerializeKmParams(&lists[0], &lists[1], &buffer, &size) == 0, "both are serialised");
  for (KmParams& list : lists) {
    FreeKmParams(&list);
  }
  return Released(buffer, size);
}

Bytes AddAtOnce(const Params& params) {
  std::vector<keymaster_key_param_t> array;
  for (const test::Param& param : params) {
    array.push_back(PlatformParam(param));
  }
  const keymaster_key_param_set_t set = {array.data(), array.size()};
  uint8_t* buffer = nullptr;
  uint32_t size = 0;
  Check(BuildKmParams(&set, &buffer, &size) == 0, "any set is serialised");
  return Released(buffer, size);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const Params params = fuzz::ReadParams(&input, kMostParams);
  // No tag of the first list carries bytes, but a list that a caller makes may.
  Params by_tag[2], alternating[2];
  for (size_t i = 0; i < params.size(); ++i) {
    by_tag[DefinesKey(params[i].tag) ? 0 : 1].push_back(params[i]);
    alternating[i % 2].push_back(params[i]);
  }
  const Bytes wire = AddAtOnce(params);
  CheckTwoLists(by_tag, wire);
  Check(AddOneByOne(by_tag) == wire, "one by one gives the same bytes");
  CheckTwoLists(alternating, AddOneByOne(alternating));

  const size_t first = 4 + km41::kParamEntrySize * by_tag[0].size();
  const size_t lists = first + 4 + km41::kParamEntrySize * by_tag[1].size();
  const auto part = [&wire](size_t from, size_t to) {
    return Bytes(&wire[0] + from, &wire[0] + to);
  };
  const Bytes area = part(lists, wire.size());
  CheckOneList(by_tag[0], test::Cat({part(0, first), area}));
  CheckOneList(by_tag[1], test::Cat({part(first, lists), area}));
  return 0;
}

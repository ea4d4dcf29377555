// Parameters to bytes and back: what is decoded must be what was serialised, but for what the wire
// form does not carry.
#include <keymaster_ts.h>

#include <algorithm>

#include "fuzz/serve.h"

namespace {

using fuzz::Bytes;
using fuzz::Check;
using fuzz::Params;

constexpr size_t kMostParams = 300;

// What the wire carries of a number, by the top four bits of its tag.
constexpr uint64_t kWord = UINT32_MAX, kLong = UINT64_MAX;
constexpr uint64_t kCarried[16] = {0, kWord, kWord, kWord, kWord, kLong, kLong, 1, 0, 0, kLong};

// A number fills more of the structure than the wire carries of it.
keymaster_key_param_t PlatformParam(const test::Param& param) {
  keymaster_key_param_t out = {};
  out.tag = static_cast<keymaster_tag_t>(param.tag);
  if (!test::IsByteValued(param.tag)) {
    out.long_integer = std::get<uint64_t>(param.value) | ~(kCarried[param.tag >> 28] | 0xFF);
  } else if (const Bytes& bytes = std::get<Bytes>(param.value); !bytes.empty()) {
    out.blob = test::Blob(bytes);
  }
  return out;
}

bool Same(const keymaster_key_param_t& decoded, const test::Param& sent) {
  const bool same = test::IsByteValued(sent.tag)
                        ? test::BlobBytes(decoded.blob) == std::get<Bytes>(sent.value)
                        : test::NumberOf(decoded) == std::get<uint64_t>(sent.value);
  return same && static_cast<uint32_t>(decoded.tag) == sent.tag;
}

void CheckSame(const keymaster_key_param_set_t& decoded, const Params& sent) {
  Check(std::equal(decoded.params, decoded.params + decoded.length, sent.begin(), sent.end(), Same),
        "the parameters that were serialised");
}

void CheckOneList(const Params& list) {
  const Bytes reply = test::OneList(list);
  test::Outputs outputs;
  outputs.params = {};
  Check(BuildKeyParamSet(&outputs.params, reply.data(), static_cast<uint32_t>(reply.size())) == 0,
        "one list decodes");
  CheckSame(outputs.params, list);
  fuzz::Judge(&outputs, test::kParams, 0);
}

void CheckTwoLists(const Params (&sent)[2], const Bytes& wire) {
  test::Outputs outputs;
  keymaster_key_characteristics_t& decoded = outputs.characteristics = {};
  Check(BuildKeyCharacter(wire.data(), static_cast<uint32_t>(wire.size()), &decoded) == 0,
        "what is serialised decodes");
  CheckSame(decoded.hw_enforced, sent[0]);
  CheckSame(decoded.sw_enforced, sent[1]);
  fuzz::Judge(&outputs, test::kCharacteristics, 0);
}

// Bytes that a serialiser makes.
template <typename Serialise>
Bytes Serialised(Serialise serialise) {
  uint8_t* buffer = nullptr;
  uint32_t size = 0;
  Check(serialise(&buffer, &size) == 0, "any parameters are serialised");
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
  const Bytes out = Serialised([&](uint8_t** buffer, uint32_t* size) {
    return SerializeKmParams(&lists[0], &lists[1], buffer, size);
  });
  for (KmParams& list : lists) {
    FreeKmParams(&list);
  }
  return out;
}

Bytes AddAtOnce(const Params& params) {
  std::vector<keymaster_key_param_t> array;
  for (const test::Param& param : params) {
    array.push_back(PlatformParam(param));
  }
  const keymaster_key_param_set_t set = {array.data(), array.size()};
  return Serialised(
      [&](uint8_t** buffer, uint32_t* size) { return BuildKmParams(&set, buffer, size); });
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  Params params = fuzz::ReadParams(&input, kMostParams);
  // No tag of the first list carries bytes, but a list that a caller makes may.
  const auto& tags = test::kFirstListTags;
  Params by_tag[2], alternating[2];
  for (size_t i = 0; i < params.size(); ++i) {
    test::Param& param = params[i];
    if (auto* number = std::get_if<uint64_t>(&param.value)) *number &= kCarried[param.tag >> 28];
    const bool goes_first = std::count(std::begin(tags), std::end(tags), param.tag) != 0;
    by_tag[goes_first ? 0 : 1].push_back(param);
    alternating[i % 2].push_back(param);
  }
  const Bytes wire = AddAtOnce(params);
  Check(AddOneByOne(by_tag) == wire, "one by one gives the same bytes");
  CheckTwoLists(by_tag, wire);
  CheckTwoLists(alternating, AddOneByOne(alternating));
  CheckOneList(by_tag[0]);
  CheckOneList(by_tag[1]);
  return 0;
}

// Key parameters to bytes and back.
#include <errno.h>
#include <keymaster_ts.h>

#include "tests/platform/keymaster_test.h"
#include "tests/requests/wire.h"

namespace test {
namespace {

using Serialise = KeymasterTest;
using Decode = KeymasterTest;

constexpr uint32_t kBytesTag = 0x90000321;

// The bytes that serialise(&out, &length) made, released; a failure leaves both untouched.
template <typename Serialise>
Bytes Made(int32_t result, Serialise serialise) {
  uint8_t* out = nullptr;
  uint32_t length = 77;
  EXPECT_EQ(result, serialise(&out, &length));
  EXPECT_TRUE(result == 0 || (out == nullptr && length == 77));
  const Bytes bytes(out, out == nullptr ? out : out + length);
  free(out);
  return bytes;
}
Bytes Build(const keymaster_key_param_set_t* set, int32_t result = 0) {
  return Made(result, [=](auto... out) { return BuildKmParams(set, out...); });
}
Bytes Join(const KmParams* first, KmParams* second, int32_t result = 0) {
  return Made(result, [=](auto... out) { return SerializeKmParams(first, second, out...); });
}

// A KmParams that ends with its test. Add returns what AddKmParams does.
struct Record : KmParams {
  explicit Record(std::initializer_list<Param> content = {}) : KmParams{} {
    EXPECT_EQ(0, InitKmParams(this));
    for (const Param& param : content) {
      EXPECT_EQ(0, Add(param));
    }
  }
  ~Record() { FreeKmParams(this); }
  Record(const Record&) = delete;
  int32_t Add(const Param& param) {
    ParamSet set({param});
    return AddKmParams(this, &set[0]);
  }
};

// Decodes a reply that ends where readable memory ends. Returns its lists, "20000001=2 | ", or the
// error, which must leave no list.
std::string Decoded(int lists, const Bytes& reply) {
  platform().ClearRecords();
  const Fenced fenced(reply);
  const auto length = static_cast<uint32_t>(reply.size());
  // What a caller left in its set is not the decoder's to free.
  keymaster_key_param_t stale{};
  keymaster_key_characteristics_t out{{&stale, 1}, {nullptr, 0}};
  const int32_t result = lists == 1 ? BuildKeyParamSet(&out.hw_enforced, fenced.data(), length)
                                    : BuildKeyCharacter(fenced.data(), length, &out);
  const std::string hardware = Describe(out.hw_enforced), software = Describe(out.sw_enforced);
  for (keymaster_key_param_set_t* set : {&out.hw_enforced, &out.sw_enforced}) {
    EXPECT_EQ(set->length == 0, set->params == nullptr);
    EXPECT_TRUE(result == 0 || set->length == 0);
    FreeSet(set);
  }
  return result != 0 ? std::to_string(result) : hardware + " | " + software;
}

constexpr char kInvalid[] = "-22", kNoMemory[] = "-12";

TEST_F(Serialise, FollowsTheTypeOfEachTagAsDecodingDoes) {
  const uint64_t wide = 0x1122334455667702, narrow = 0x55667702, three = 3ull << 32;
  const uint64_t kSent[16] = {0, narrow, narrow, narrow, narrow, wide, wide, 2, three, three, wide};
  const std::string n = "=55667702", w = "=1122334455667702";
  const std::string kRead[] = {"=0", n,   n, n,    n,    w,    w,    "=1",
                               ":",  ":", w, "=0", "=0", "=0", "=0", "=0"};
  for (uint32_t type = 0; type < 16; ++type) {
    const uint32_t tag = type << 28 | 0x321;
    const Bytes bytes = IsByteValued(tag) ? Ramp(1, 3) : Bytes();
    const ParamSet set({bytes.empty() ? Param(tag, wide) : Param(tag, bytes)});
    EXPECT_EQ(Cat({Le32(0), Le32(1), Entry(tag, kSent[type]), bytes}), Build(set.get()));
    // Empty bytes decode whatever their offset and without any blob area.
    const Bytes list = WireList({IsByteValued(tag) ? BytesEntry(tag, 99, 0) : Entry(tag, wide)});
    const std::string name = type == 0 ? "321" : "0123456789abcdef"[type] + std::string("0000321"),
                      param = name + kRead[type];
    EXPECT_EQ(param + " | ", Decoded(1, list));
    EXPECT_EQ(param + " | " + param, Decoded(2, Cat({list, list})));
  }
  EXPECT_EQ(Bytes(8), Build(ParamSet().get()));
  EXPECT_EQ(" | ", Decoded(1, Bytes(4)));
  EXPECT_EQ(" | ", Decoded(2, Bytes(8)));
}

// ---- To bytes

TEST_F(Serialise, SortsTheTwelveKeyDefinitionTagsFirst) {
  Params all = {{0x20000003, 1}}, first, second = all;
  for (const uint32_t tag : kFirstListTags) {
    // Neither the neighbours nor the same number under another type belong to the first list.
    for (const uint32_t other : {tag + 0x100, tag ^ 0x40000, (tag & 0x0FFFFFFF) | 0xA0000000}) {
      second.push_back({other, 1});
      all.push_back({other, 1});
    }
    first.push_back({tag, 1});
    all.push_back({tag, 1});
  }
  EXPECT_EQ(TwoLists(first, second), Build(ParamSet(all).get()));
}

TEST_F(Serialise, RebasesTheSecondListOnTheFirstOnesBytes) {
  const Record first({{0x80000001, Ramp(1, 7)}, {0x90000002, Bytes()}});
  Record second({{0x90000003, Ramp(50, 3)},
                 {0xA0000004, 9},
                 {0x80000005, Ramp(60, 5)},
                 {0x90000006, Bytes()}});
  const Bytes tail = Cat({Ramp(50, 3), Ramp(60, 5)});
  EXPECT_EQ(Cat({Le32(0), Le32(4), BytesEntry(0x90000003, 0, 3), Entry(0xA0000004, 9),
                 BytesEntry(0x80000005, 3, 5), BytesEntry(0x90000006, 0, 0), tail}),
            Join(nullptr, &second));
  EXPECT_EQ(Cat({Le32(2), BytesEntry(0x80000001, 0, 7), BytesEntry(0x90000002, 0, 0), Le32(4),
                 BytesEntry(0x90000003, 7, 3), Entry(0xA0000004, 9), BytesEntry(0x80000005, 10, 5),
                 BytesEntry(0x90000006, 7, 0), Ramp(1, 7), tail}),
            Join(&first, &second));
}

TEST_F(Serialise, GrowsBySixteen) {
  Record record;
  Params params;
  for (uint32_t i = 1; i <= 50; ++i) {
    EXPECT_EQ(16 * std::max(1u, (i + 14) / 16), record.capacity);
    params.push_back(i % 3 == 0 ? Param(kBytesTag + i, Ramp(1, i)) : Param(i << 8, 0));
    ASSERT_EQ(0, record.Add(params.back()));
    ASSERT_EQ(TwoLists({}, params), Join(nullptr, &record)) << i;
  }
}

TEST_F(Serialise, RejectsBadArguments) {
  uint8_t* out = nullptr;
  uint32_t length = 77;
  Record record;
  keymaster_key_param_t param{};
  keymaster_key_param_set_t no_array{nullptr, 1}, set{nullptr, 0};
  for (const int32_t result :
       {AddKmParams(nullptr, &param), AddKmParams(&record, nullptr),
        SerializeKmParams(&record, nullptr, &out, &length),
        SerializeKmParams(&record, &record, nullptr, &length),
        SerializeKmParams(&record, &record, &out, nullptr), BuildKmParams(nullptr, &out, &length),
        BuildKmParams(&set, nullptr, &length), BuildKmParams(&set, &out, nullptr),
        BuildKmParams(&no_array, &out, &length)}) {
    EXPECT_EQ(-22, result);
  }
  FreeKmParams(nullptr);
  EXPECT_EQ(Lines(), Log());
  KmParams fresh;
  FailCall(Call::kMalloc, 1);
  EXPECT_EQ(-12, InitKmParams(&fresh));
  EXPECT_EQ(-12, InitKmParams(nullptr));
  EXPECT_EQ(Lines{"E KeyMaster_Ts: km_params is null, please check!\n"}, Log());
  EXPECT_TRUE(out == nullptr && length == 77);
}

// Records that say they are large; their arrays are never touched.
TEST_F(Serialise, RejectsSizesThatWrap) {
  uint8_t byte = 0;
  auto* never = reinterpret_cast<KmParamEntry*>(&byte);
  for (const uint32_t len : {0x0FFFFFEFu, 0x0FFFFFF0u, 0xFFFFFFFFu}) {
    platform().ClearRecords();
    KmParams full{len, len, 0, never, nullptr};
    const keymaster_key_param_t param{};
    EXPECT_EQ(-12, AddKmParams(&full, &param));
    EXPECT_TRUE(full.len == len && full.capacity == len);
    EXPECT_EQ(Lines(len > 0x0FFFFFEF, "E KeyMaster_Ts: km_params->len is invalid, please check!\n"),
              Log());
  }
  // Totals that wrap 32 bits are rejected before any allocation, the largest one by it.
  constexpr uint32_t kTotals[][4] = {
      {0, 0, 0x10000000, 0},          {0x10000000, 0, 0, 0},         {0x08000000, 0, 0x08000000, 0},
      {0, 0xFFFFFFF8, 0, 0},          {0, 0, 0, 0xFFFFFFF8},         {1, 0x80000000, 1, 0x7FFFFFD8},
      {0, 0xFFFFFFFF, 0, 0xFFFFFFFF}, {1, 0x80000000, 1, 0x7FFFFFD7}};
  for (const auto& [len1, data1, len2, data2] : kTotals) {
    KmParams one{len1, len1, data1, never, &byte}, two{len2, len2, data2, never, &byte};
    FailCall(Call::kMalloc, 0);
    Join(&one, &two, -12);
    EXPECT_EQ(data2 == 0x7FFFFFD7, CallCount(Call::kMalloc) == 1) << data2;
  }
}

TEST_F(Serialise, RejectsByteValuesThatDoNotFit) {
  uint8_t byte = 0;
  // Bytes already in the store, and of the value; the result, and the value's bytes.
  const std::tuple<uint64_t, uint64_t, int32_t, const uint8_t*> kRows[] = {
      {0xFFFFFFFF, 1, -22, &byte}, {0xFFFFFFF0, 0x20, -22, &byte},
      {1, 0xFFFFFFFF, -22, &byte}, {0, 1ul << 32, -22, &byte},
      {1, 1ul << 32, -12, &byte},  {0, (1ul << 32) + 1, -12, &byte},
      {0, 0xFFFFFFFF, -12, &byte}, {0, 3, -12, nullptr}};
  for (const auto& [stored, length, result, data] : kRows) {
    SCOPED_TRACE(std::to_string(stored) + " " + std::to_string(length));
    Record record;
    uint8_t* const store = stored == 0 ? nullptr : &byte;
    record.data_len = static_cast<uint32_t>(stored);
    record.data = store;
    keymaster_key_param_t params[2]{};
    params[0].tag = params[1].tag = KM_TAG_APPLICATION_ID;
    params[0].blob = {data, length};
    EXPECT_EQ(result, AddKmParams(&record, params));
    EXPECT_TRUE(record.len == 0 && record.data_len == stored && record.data == store);
    record.data = nullptr;
    // The same in one set, where every such failure is the same.
    params[1].blob = {data, stored};
    const keymaster_key_param_set_t set{params, 2};
    Build(&set, -12);
  }
}

// The 17th add both grows the slots and extends the byte store.
TEST_F(Serialise, AFailedStepLeavesTheEntriesAsTheyWere) {
  for (const auto& [call, nth] : {std::pair(Call::kMalloc, 1),
                                  {Call::kMalloc, 2},
                                  {Call::kMemcpyS, 1},
                                  {Call::kMemcpyS, 2},
                                  {Call::kMemcpyS, 3}}) {
    Record record;
    for (uint32_t i = 0; i < 16; ++i) {
      EXPECT_EQ(0, record.Add({kBytesTag + i, Ramp(1, 5)}));
    }
    const Bytes before = Join(nullptr, &record);
    FailCall(call, nth);
    EXPECT_EQ(-12, record.Add({kBytesTag, Ramp(7, 3)})) << nth;
    EXPECT_EQ(before, Join(nullptr, &record));
    FailCall(call, 0);
    EXPECT_EQ(0, record.Add({kBytesTag, Ramp(7, 3)}));
  }
  const Record first({{kBytesTag, Ramp(1, 7)}});
  Record second({{kBytesTag, Ramp(1, 3)}, {kBytesTag, Ramp(1, 5)}});
  const Bytes before = Join(nullptr, &second);
  for (int nth = 1; nth <= 6; ++nth) {
    FailCall(Call::kMemcpyS, nth);
    Join(&first, &second, -12);
    EXPECT_EQ(before, Join(nullptr, &second)) << nth;
  }
}

// ---- And back

TEST_F(Decode, RejectsBadArgumentsWithoutTouchingTheOutput) {
  const Bytes reply(8);
  keymaster_key_param_t marker{};
  keymaster_key_characteristics_t out{{&marker, 5}, {&marker, 6}};
  EXPECT_EQ(-EINVAL, BuildKeyCharacter(nullptr, 8, &out));
  EXPECT_EQ(-EINVAL, BuildKeyCharacter(reply.data(), 8, nullptr));
  EXPECT_EQ(-EINVAL, BuildKeyParamSet(nullptr, reply.data(), 8));
  EXPECT_EQ(-EINVAL, BuildKeyParamSet(&out.hw_enforced, nullptr, 8));
  EXPECT_EQ(Lines(), Log());
  for (uint32_t length = 0; length < 4; ++length) {
    EXPECT_EQ(-EINVAL, BuildKeyCharacter(reply.data(), length, &out));
    EXPECT_EQ(-EINVAL, BuildKeyParamSet(&out.hw_enforced, reply.data(), length));
  }
  EXPECT_TRUE(out.hw_enforced.params == &marker && out.hw_enforced.length == 5);
  EXPECT_TRUE(out.sw_enforced.params == &marker && out.sw_enforced.length == 6);
}

TEST_F(Decode, SaysWhereAReplyIsTruncated) {
  // Two hardware entries, one of them bytes, one software entry of bytes, and bytes for nobody.
  const Bytes whole = Cat({TwoLists({{KM_TAG_PURPOSE, 2}, {KM_TAG_APPLICATION_ID, Ramp(0x10, 3)}},
                                    {{KM_TAG_NONCE, Ramp(0x13, 5)}}),
                           Bytes(2, 0xEE)});
  const std::string lists = "20000001=2 90000259:101112 | 900003e9:1314151617",
                    log = "E KeyMaster_Ts: ";
  const struct {
    int lists;
    size_t length;
    std::string result, log;
  } kRows[] = {{2, 4, kInvalid, log + "1 invalid key character size, 4-2-4"},
               {2, 35, kInvalid, log + "1 invalid key character size, 4-2-35"},
               {2, 39, kInvalid, log + "2 invalid key character size, 36-39"},
               {2, 55, kInvalid, log + "3 invalid key character size, 40-1-55"},
               {2, 63, kNoMemory, ""},
               {2, 64, lists, ""},
               {2, 66, lists, ""},
               {1, 35, kNoMemory, log + "invalid copy size, 2-35"}};
  for (const auto& row : kRows) {
    EXPECT_EQ(row.result, Decoded(row.lists, Bytes(whole.data(), whole.data() + row.length)));
    EXPECT_EQ(row.log, Log().empty() ? "" : Log()[0]);
  }
}

TEST_F(Decode, RejectsCountsThatTheReplyCannotHoldBeforeItAllocates) {
  for (const uint32_t count :
       {3u, 0x08000000u, 0x0AAAAAAAu, 0x0AAAAAABu, 0x10000002u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(count);
    const Bytes counted = Cat({Le32(count), Bytes(47)});
    FailCall(Call::kMalloc, 0);
    EXPECT_EQ(kInvalid, Decoded(2, counted));
    // Above this not even the decoded array could be.
    EXPECT_EQ(count > 0x0AAAAAAA ? 1u : 2u, Log().size());
    EXPECT_EQ(kNoMemory, Decoded(1, counted));
    EXPECT_EQ(0, CallCount(Call::kMalloc));
    EXPECT_EQ(kInvalid, Decoded(2, Cat({WireList({Entry(1)}), counted})));
  }
}

TEST_F(Decode, RejectsBytesOutsideTheBlobArea) {
  const Bytes other = WireList({BytesEntry(KM_TAG_NONCE, 0, 2)}), area = Ramp(1, 8);
  const std::tuple<uint32_t, uint32_t, bool> kRows[] = {
      {0, 8, true},           {7, 1, true},           {8, 0, true},
      {0xFFFFFFFF, 0, true},  {1, 8, false},          {0, 9, false},
      {8, 1, false},          {9, 1, false},          {0xFFFFFFFF, 1, false},
      {0xFFFFFFFF, 2, false}, {1, 0xFFFFFFFF, false}, {0x80000000, 0x80000000, false}};
  for (const auto& [offset, length, fits] : kRows) {
    SCOPED_TRACE(std::to_string(offset) + " " + std::to_string(length));
    for (const uint32_t tag : {0x80000001u, 0x90000001u}) {
      const Bytes list =
          WireList({BytesEntry(KM_TAG_NONCE, 0, 2), BytesEntry(tag, offset, length)});
      ParamSet params({{KM_TAG_NONCE, Ramp(1, 2)}});
      if (fits) params.Add({tag, Ramp(static_cast<uint8_t>(offset + 1), length)});
      const std::string text = Describe(*params.get()), first = "900003e9:0102";
      EXPECT_EQ(fits ? text + " | " : kNoMemory, Decoded(1, Cat({list, area})));
      EXPECT_EQ(fits ? text + " | " + first : kNoMemory, Decoded(2, Cat({list, other, area})));
      EXPECT_EQ(fits ? first + " | " + text : kNoMemory, Decoded(2, Cat({other, list, area})));
    }
  }
}

}  // namespace
}  // namespace test

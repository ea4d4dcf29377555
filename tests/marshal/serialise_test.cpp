// Key parameters to bytes.
#include <keymaster_ts.h>
#include <stdlib.h>

#include "tests/platform/keymaster_test.h"

namespace test {
namespace {

using Serialise = KeymasterTest;

constexpr uint32_t kBytesTag = 0x90000321;
constexpr uint32_t kFirstListTags[] = {0x10000002, 0x1000000A, 0x1000012D, 0x20000001,
                                       0x20000004, 0x20000005, 0x20000006, 0x30000003,
                                       0x500000C8, 0x70000007, 0x7000012E, 0x7000012F};

// Frees out once its bytes are taken.
Bytes Released(int32_t result, uint8_t* out, uint32_t length) {
  EXPECT_EQ(0, result);
  const Bytes bytes(out, out + length);
  free(out);
  return bytes;
}

Bytes Build(ParamSet& set) {
  uint8_t* out = nullptr;
  uint32_t length = 0;
  const int32_t result = BuildKmParams(set.get(), &out, &length);
  return Released(result, out, length);
}

Bytes Join(const KmParams* first, KmParams* second) {
  uint8_t* out = nullptr;
  uint32_t length = 0;
  const int32_t result = SerializeKmParams(first, second, &out, &length);
  return Released(result, out, length);
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
  // All that the record holds: its entries' bytes, then its byte store.
  Bytes Content() const {
    return Cat({Bytes(params->bytes, params->bytes + 16 * len), Bytes(data, data + data_len)});
  }
};

TEST_F(Serialise, LaysOutEachTagType) {
  const uint64_t wide = 0x1122334455667702, narrow = 0x55667702, three = 3ull << 32;
  const uint64_t expected[] = {0,     narrow, narrow, narrow, narrow, wide, wide, 2,
                               three, three,  wide,   0,      0,      0,    0,    0};
  for (uint32_t type = 0; type < 16; ++type) {
    const uint32_t tag = type << 28 | 0x321;
    const Bytes bytes = IsByteValued(tag) ? Ramp(1, 3) : Bytes();
    ParamSet set({bytes.empty() ? Param(tag, wide) : Param(tag, bytes)});
    EXPECT_EQ(Cat({Le32(0), Le32(1), Entry(tag, expected[type]), bytes}), Build(set));
  }
}

TEST_F(Serialise, SortsTheTwelveKeyDefinitionTagsFirst) {
  ParamSet set({});
  EXPECT_EQ(Bytes(8), Build(set));
  Bytes first = Le32(12), second = Le32(37);
  const auto add = [&set](uint32_t tag, Bytes* list) {
    set.Add({tag, 1});
    *list = Cat({*list, Entry(tag, 1)});
  };
  add(0x20000003, &second);
  for (const uint32_t tag : kFirstListTags) {
    // Neither the neighbours nor the same number under another type belong to the first list.
    for (const uint32_t other : {tag + 0x100, tag ^ 0x40000, (tag & 0x0FFFFFFF) | 0xA0000000}) {
      add(other, &second);
    }
    add(tag, &first);
  }
  EXPECT_EQ(Cat({first, second}), Build(set));
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
  Bytes entries, data;
  for (uint32_t i = 1; i <= 49; ++i) {
    const auto offset = static_cast<uint32_t>(data.size());
    const bool bytes = i % 3 == 0;
    ASSERT_EQ(0, record.Add(bytes ? Param(kBytesTag + i, Ramp(1, i)) : Param(i << 8, 0)));
    EXPECT_EQ(i <= 16 ? 16u : i <= 32 ? 32u : i <= 48 ? 48u : 64u, record.capacity);
    entries = Cat({entries, bytes ? BytesEntry(kBytesTag + i, offset, i) : Entry(i << 8)});
    if (bytes) data = Cat({data, Ramp(1, i)});
    ASSERT_EQ(Cat({entries, data}), record.Content()) << i;
  }
}

TEST_F(Serialise, RejectsBadArguments) {
  uint8_t byte = 0;
  uint8_t* out = nullptr;
  uint32_t length = 77;
  Record record;
  keymaster_key_param_t param{};
  keymaster_key_param_set_t no_array{nullptr, 1}, set{nullptr, 0};
  EXPECT_EQ(-22, AddKmParams(nullptr, &param));
  EXPECT_EQ(-22, AddKmParams(&record, nullptr));
  EXPECT_EQ(-22, SerializeKmParams(&record, nullptr, &out, &length));
  EXPECT_EQ(-22, SerializeKmParams(&record, &record, nullptr, &length));
  EXPECT_EQ(-22, SerializeKmParams(&record, &record, &out, nullptr));
  EXPECT_EQ(-22, BuildKmParams(nullptr, &out, &length));
  EXPECT_EQ(-22, BuildKmParams(&set, nullptr, &length));
  EXPECT_EQ(-22, BuildKmParams(&set, &out, nullptr));
  EXPECT_EQ(-22, BuildKmParams(&no_array, &out, &length));
  FreeKmParams(nullptr);
  EXPECT_EQ(Lines(), Log());
  EXPECT_EQ(-12, InitKmParams(nullptr));
  EXPECT_EQ(Lines{"E KeyMaster_Ts: km_params is null, please check!\n"}, Log());

  // A record that cannot grow; its arrays are never touched.
  auto* never = reinterpret_cast<KmParamEntry*>(&byte);
  for (const uint32_t len : {0x0FFFFFEFu, 0x0FFFFFF0u, 0xFFFFFFFFu}) {
    platform().ClearRecords();
    KmParams full{len, len, 0, never, nullptr};
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
    EXPECT_EQ(-12, SerializeKmParams(&one, &two, &out, &length));
    EXPECT_EQ(data2 == 0x7FFFFFD7, CallCount(Call::kMalloc) == 1) << data2;
  }
  EXPECT_TRUE(out == nullptr && length == 77);
}

TEST_F(Serialise, RejectsByteValuesThatDoNotFit) {
  uint8_t byte = 0;
  // Bytes already in the store, and length of the value.
  constexpr uint64_t kBad[][2] = {{0xFFFFFFFF, 1},
                                  {0xFFFFFFF0, 0x20},
                                  {1, 0xFFFFFFFF},
                                  {0, 1ul << 32}},
                     kNoRoom[][2] = {{1, 1ul << 32}, {0, (1ul << 32) + 1}, {0, 0xFFFFFFFF}};
  const auto check = [&](int32_t result, uint64_t stored, uint64_t length, const uint8_t* data) {
    Record record;
    uint8_t* const store = stored == 0 ? nullptr : &byte;
    record.data_len = static_cast<uint32_t>(stored);
    record.data = store;
    keymaster_key_param_t param{};
    param.tag = KM_TAG_APPLICATION_ID;
    param.blob = {data, length};
    EXPECT_EQ(result, AddKmParams(&record, &param)) << stored << " " << length;
    EXPECT_TRUE(record.len == 0 && record.data_len == stored && record.data == store);
    record.data = nullptr;
    // The same in one set, where every such failure is the same.
    keymaster_key_param_t both[] = {param, param};
    both[0].blob.data_length = stored;
    const keymaster_key_param_set_t set{both, 2};
    uint8_t* out = nullptr;
    uint32_t out_length = 77;
    EXPECT_EQ(-12, BuildKmParams(&set, &out, &out_length)) << stored << " " << length;
    EXPECT_TRUE(out == nullptr && out_length == 77);
  };
  for (const auto& [stored, length] : kBad) {
    check(-22, stored, length, &byte);
  }
  for (const auto& [stored, length] : kNoRoom) {
    check(-12, stored, length, &byte);
  }
  check(-12, 0, 3, nullptr);
}

// The 17th add both grows the slots and extends the byte store.
TEST_F(Serialise, AFailedStepLeavesTheEntriesAsTheyWere) {
  for (const Call call : {Call::kMalloc, Call::kMemcpyS}) {
    for (int nth = 1; nth <= (call == Call::kMalloc ? 2 : 3); ++nth) {
      Record record;
      for (uint32_t i = 0; i < 16; ++i) {
        EXPECT_EQ(0, record.Add({kBytesTag + i, Ramp(1, 5)}));
      }
      const Bytes before = record.Content();
      FailCall(call, nth);
      EXPECT_EQ(-12, record.Add({kBytesTag, Ramp(7, 3)})) << nth;
      EXPECT_EQ(before, record.Content());
      FailCall(call, 0);
      EXPECT_EQ(0, record.Add({kBytesTag, Ramp(7, 3)}));
    }
  }
  const Record first({{kBytesTag, Ramp(1, 7)}});
  Record second({{kBytesTag, Ramp(1, 3)}, {kBytesTag, Ramp(1, 5)}});
  const Bytes before = second.Content();
  for (int nth = 1; nth <= 6; ++nth) {
    uint8_t* out = nullptr;
    uint32_t length = 0;
    FailCall(Call::kMemcpyS, nth);
    EXPECT_EQ(-12, SerializeKmParams(&first, &second, &out, &length)) << nth;
    EXPECT_EQ(before, second.Content()) << nth;
  }
}

}  // namespace
}  // namespace test

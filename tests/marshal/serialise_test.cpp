// Key parameters to bytes.
#include <keymaster_ts.h>
#include <string.h>

#include "tests/platform/keymaster_test.h"

namespace test {
namespace {

using Serialise = KeymasterTest;

constexpr uint32_t kSecondListUint = 0x30000321;
constexpr uint32_t kSecondListBytes = 0x90000321;
constexpr uint32_t kFirstListTags[] = {0x10000002, 0x1000000A, 0x1000012D, 0x20000001,
                                       0x20000004, 0x20000005, 0x20000006, 0x30000003,
                                       0x500000C8, 0x70000007, 0x7000012E, 0x7000012F};

// Build serialises a set and hands the bytes over; empty on failure.
Bytes Build(ParamSet& set, int32_t expected = 0) {
  uint8_t* out = nullptr;
  uint32_t length = 0;
  EXPECT_EQ(expected, BuildKmParams(set.get(), &out, &length));
  EXPECT_EQ(expected == 0, out != nullptr);
  Bytes bytes(out, out + length);
  free(out);
  return bytes;
}

// A KmParams that ends with its test. Add returns what AddKmParams does.
struct Record : KmParams {
  Record() : KmParams{} { EXPECT_EQ(0, InitKmParams(this)); }
  ~Record() { FreeKmParams(this); }
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;
  int32_t Add(const Param& param) {
    ParamSet set({param});
    return AddKmParams(this, &set[0]);
  }
  // All that the record holds: its entries' bytes, then its byte store.
  Bytes Content() const {
    const uint8_t* entries = params == nullptr ? nullptr : params->bytes;
    return Cat({Bytes(entries, entries + 16 * len), Bytes(data, data + data_len)});
  }
};

TEST_F(Serialise, LaysOutEachTagType) {
  const uint64_t value = 0x1122334455667702;
  for (uint32_t type = 0; type < 16; ++type) {
    SCOPED_TRACE(type);
    const uint32_t tag = type << 28 | 0x321;
    const bool bytes = type == 8 || type == 9;
    ParamSet set({bytes ? Param(tag, Ramp(1, 3)) : Param(tag, value)});
    const uint64_t expected[] = {
        0,          0x55667702, 0x55667702, 0x55667702,         0x55667702, value, value, 2,
        3ull << 32, 3ull << 32, value,      0 /* unassigned */, 0,          0,     0,     0};
    EXPECT_EQ(Cat({Le32(0), Le32(1), Entry(tag, expected[type]), bytes ? Ramp(1, 3) : Bytes()}),
              Build(set));
  }
}

TEST_F(Serialise, SortsTheTwelveKeyDefinitionTagsFirst) {
  ParamSet empty({});
  EXPECT_EQ(Bytes(8), Build(empty));
  ParamSet two({{KM_TAG_NO_AUTH_REQUIRED, 1}, {KM_TAG_ALGORITHM, 1}});
  EXPECT_EQ(Cat({Le32(1), Entry(0x10000002, 1), Le32(1), Entry(0x700001F7, 1)}), Build(two));

  ParamSet set({});
  Bytes first = Le32(12), second = Le32(36);
  for (const uint32_t tag : kFirstListTags) {
    // Neither the neighbours nor the same number under another type belong to the first list.
    for (const uint32_t other : {tag + 0x100, tag ^ 0x40000, (tag & 0x0FFFFFFF) | 0xA0000000}) {
      set.Add({other, 1});
      second = Cat({second, Entry(other, 1)});
    }
    set.Add({tag, 1});
    first = Cat({first, Entry(tag, 1)});
  }
  EXPECT_EQ(Cat({first, second}), Build(set));
  ParamSet between({{0x20000002, 1}, {0x20000003, 1}});
  EXPECT_EQ(Cat({Le32(0), Le32(2), Entry(0x20000002, 1), Entry(0x20000003, 1)}), Build(between));
}

TEST_F(Serialise, RebasesTheSecondListOnTheFirstOnesBytes) {
  Record first, second;
  EXPECT_EQ(0, first.Add({0x80000001, Ramp(1, 7)}));
  EXPECT_EQ(0, first.Add({0x90000002, Bytes()}));
  EXPECT_EQ(0, second.Add({0x90000003, Ramp(50, 3)}));
  EXPECT_EQ(0, second.Add({0xA0000004, 9}));
  EXPECT_EQ(0, second.Add({0x80000005, Ramp(60, 5)}));
  EXPECT_EQ(0, second.Add({0x90000006, Bytes()}));
  const Bytes tail = Cat({Ramp(50, 3), Ramp(60, 5)});
  uint8_t* out = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(0, SerializeKmParams(nullptr, &second, &out, &length));
  EXPECT_EQ(Cat({Le32(0), Le32(4), BytesEntry(0x90000003, 0, 3), Entry(0xA0000004, 9),
                 BytesEntry(0x80000005, 3, 5), BytesEntry(0x90000006, 0, 0), tail}),
            Bytes(out, out + length));
  free(out);
  ASSERT_EQ(0, SerializeKmParams(&first, &second, &out, &length));
  EXPECT_EQ(Cat({Le32(2), BytesEntry(0x80000001, 0, 7), BytesEntry(0x90000002, 0, 0), Le32(4),
                 BytesEntry(0x90000003, 7, 3), Entry(0xA0000004, 9), BytesEntry(0x80000005, 10, 5),
                 BytesEntry(0x90000006, 7, 0), Ramp(1, 7), tail}),
            Bytes(out, out + length));
  free(out);
}

TEST_F(Serialise, GrowsBySixteen) {
  Record record;
  Bytes entries, data;
  for (uint32_t i = 1; i <= 49; ++i) {
    const uint32_t capacity = i <= 16 ? 16 : i <= 32 ? 32 : i <= 48 ? 48 : 64;
    const bool bytes = i % 3 == 0;
    ASSERT_EQ(0, record.Add(bytes ? Param(kSecondListBytes + i, Ramp(1, i)) : Param(i << 8, 0)));
    EXPECT_EQ(capacity, record.capacity) << i;
    entries = Cat(
        {entries, bytes ? BytesEntry(kSecondListBytes + i, static_cast<uint32_t>(data.size()), i)
                        : Entry(i << 8)});
    if (bytes) data = Cat({data, Ramp(1, i)});
    ASSERT_EQ(Cat({entries, data}), record.Content()) << i;
  }
}

TEST_F(Serialise, RefusesBadArguments) {
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
  for (const uint32_t len : {0x0FFFFFEFu, 0x0FFFFFF0u, 0xFFFFFFFFu}) {
    platform().ClearRecords();
    KmParams full{len, len, 0, reinterpret_cast<KmParamEntry*>(&byte), nullptr};
    EXPECT_EQ(-12, AddKmParams(&full, &param));
    EXPECT_EQ(len, full.len);
    EXPECT_EQ(len, full.capacity);
    EXPECT_EQ(len == 0x0FFFFFEF
                  ? Lines()
                  : Lines{"E KeyMaster_Ts: km_params->len is invalid, please check!\n"},
              Log());
  }
  // Totals that wrap 32 bits are refused before any allocation, the largest one by it.
  const struct {
    uint32_t len1, data1, len2, data2;
    int allocations;
  } totals[] = {{0, 0, 0x10000000, 0, 0},          {0x10000000, 0, 0, 0, 0},
                {0x08000000, 0, 0x08000000, 0, 0}, {0, 0xFFFFFFF8, 0, 0, 0},
                {0, 0, 0, 0xFFFFFFF8, 0},          {1, 0x80000000, 1, 0x7FFFFFD8, 0},
                {0, 0xFFFFFFFF, 0, 0xFFFFFFFF, 0}, {1, 0x80000000, 1, 0x7FFFFFD7, 1}};
  for (const auto& t : totals) {
    KmParams one{t.len1, t.len1, t.data1, reinterpret_cast<KmParamEntry*>(&byte), &byte};
    KmParams two{t.len2, t.len2, t.data2, reinterpret_cast<KmParamEntry*>(&byte), &byte};
    FailCall(Call::kMalloc, 0);
    EXPECT_EQ(-12, SerializeKmParams(&one, &two, &out, &length));
    EXPECT_EQ(t.allocations, CallCount(Call::kMalloc));
  }
  EXPECT_EQ(nullptr, out);
  EXPECT_EQ(77u, length);
}

TEST_F(Serialise, RefusesByteValuesThatDoNotFit) {
  uint8_t byte = 0;
  const struct {
    uint32_t data_len;
    const uint8_t* data;
    uint64_t length;
    int32_t result;
  } cases[] = {{0xFFFFFFFF, &byte, 1, -22},
               {0xFFFFFFF0, &byte, 0x20, -22},
               {1, &byte, 0xFFFFFFFF, -22},
               {0, &byte, uint64_t{1} << 32, -22},
               {1, &byte, uint64_t{1} << 32, -12},
               {0, &byte, (uint64_t{1} << 32) + 1, -12},
               {0, nullptr, 3, -12},
               {0, &byte, 0xFFFFFFFF, -12}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.length);
    Record record;
    record.data_len = c.data_len;
    record.data = c.data_len == 0 ? nullptr : &byte;
    keymaster_key_param_t param{};
    param.tag = KM_TAG_APPLICATION_ID;
    param.blob = {c.data, c.length};
    EXPECT_EQ(c.result, AddKmParams(&record, &param));
    EXPECT_EQ(0u, record.len);
    EXPECT_EQ(c.data_len, record.data_len);
    EXPECT_EQ(c.data_len == 0 ? nullptr : &byte, record.data);
    record.data = nullptr;
  }
}

void ExpectOutput(const Fault& fault, int32_t result, uint8_t* out, uint32_t length) {
  EXPECT_EQ(fault.Hit() ? -12 : 0, result);
  EXPECT_EQ(fault.Hit(), out == nullptr && length == 77);
  free(out);
}

TEST_F(Serialise, AFailedStepLeavesTheEntriesAsTheyWere) {
  ParamSet set(
      {{KM_TAG_ALGORITHM, 1}, {KM_TAG_NONCE, Ramp(1, 12)}, {KM_TAG_AUTH_TOKEN, Ramp(1, 69)}});
  for (uint32_t i = 0; i < 20; ++i) set.Add({kSecondListUint, i});
  ForEachFault({Call::kMalloc, Call::kMemcpyS, Call::kMemsetS}, [&](const Fault& fault) {
    fault.Arm();
    uint8_t* out = nullptr;
    uint32_t length = 77;
    const int32_t result = BuildKmParams(set.get(), &out, &length);
    ExpectOutput(fault, result, out, length);
  });
  ForEachFault({Call::kMalloc, Call::kMemsetS}, [](const Fault& fault) {
    fault.Arm();
    KmParams record{1, 1, 1, nullptr, nullptr};
    const int32_t result = InitKmParams(&record);
    EXPECT_EQ(fault.Hit() ? -12 : 0, result);
    EXPECT_EQ(fault.Hit(), record.params == nullptr);
    FreeKmParams(&record);
    EXPECT_EQ(nullptr, record.params);
  });
  // The 17th add both grows the slots and extends the byte store.
  ForEachFault({Call::kMalloc, Call::kMemcpyS}, [](const Fault& fault) {
    Record record;
    for (uint32_t i = 0; i < 16; ++i) EXPECT_EQ(0, record.Add({kSecondListBytes + i, Ramp(1, 5)}));
    const Bytes before = record.Content();
    fault.Arm();
    const int32_t result = record.Add({kSecondListBytes, Ramp(7, 3)});
    EXPECT_EQ(fault.Hit() ? -12 : 0, result);
    EXPECT_EQ(fault.Hit(), before == record.Content());
    FailCall(fault.call, 0);
    EXPECT_EQ(0, record.Add({kSecondListBytes, Ramp(7, 3)}));
  });
  ForEachFault({Call::kMalloc, Call::kMemcpyS}, [](const Fault& fault) {
    Record first, second;
    EXPECT_EQ(0, first.Add({KM_TAG_NONCE, Ramp(1, 5)}));
    EXPECT_EQ(0, second.Add({KM_TAG_NONCE, Ramp(1, 5)}));
    fault.Arm();
    uint8_t* out = nullptr;
    uint32_t length = 77;
    const int32_t result = SerializeKmParams(&first, &second, &out, &length);
    ExpectOutput(fault, result, out, length);
  });
}

}  // namespace
}  // namespace test

// Replies to key parameters.
#include <keymaster_ts.h>
#include <string.h>

#include <memory>

#include "tests/platform/keymaster_test.h"

namespace test {
namespace {

using Decode = KeymasterTest;

constexpr char kHardwareFailed[] = "E KeyMaster_Ts: Proc hw enforce failed, err=";

// What one decoder made of a reply: its result, its lists, and what it logged.
struct Outcome {
  int32_t result;
  std::string lists;  // "hw | sw", or the one list
  Lines log;
  bool operator==(const Outcome& o) const {
    return result == o.result && lists == o.lists && log == o.log;
  }
};
std::ostream& operator<<(std::ostream& out, const Outcome& o) {
  return out << o.result << " {" << o.lists << "} " << ::testing::PrintToString(o.log);
}

// A malloc copy of exactly the reply's size lets a sanitizer see any read beyond it.
std::unique_ptr<uint8_t, decltype(&free)> ExactCopy(const Bytes& reply) {
  uint8_t* block = static_cast<uint8_t*>(malloc(reply.size()));
  if (!reply.empty()) memcpy(block, reply.data(), reply.size());
  return {block, free};
}

// A set that failed must be empty; one that succeeded goes by its parameters.
std::string Take(int32_t result, keymaster_key_param_set_t* set) {
  EXPECT_EQ(set->length == 0, set->params == nullptr);
  EXPECT_TRUE(result == 0 || set->length == 0);
  const std::string text = Describe(*set);
  FreeSet(set);
  return text;
}

Outcome Characteristics(const Bytes& reply) {
  platform().ClearRecords();
  keymaster_key_characteristics_t out{};
  const int32_t result =
      BuildKeyCharacter(ExactCopy(reply).get(), static_cast<uint32_t>(reply.size()), &out);
  const std::string hw = Take(result, &out.hw_enforced);
  return {result, hw + " | " + Take(result, &out.sw_enforced), Log()};
}

Outcome OneList(const Bytes& reply) {
  platform().ClearRecords();
  keymaster_key_param_set_t out{};
  const int32_t result =
      BuildKeyParamSet(&out, ExactCopy(reply).get(), static_cast<uint32_t>(reply.size()));
  return {result, Take(result, &out), Log()};
}

Bytes Prefix(const Bytes& bytes, size_t length) {
  return Bytes(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(length));
}

std::string Number(uint64_t value) { return std::to_string(value); }

// Two hardware entries, one of them bytes, one software entry of bytes, and bytes nobody asks for.
Bytes SampleReply() {
  return Cat({WireList({Entry(KM_TAG_PURPOSE, 2), BytesEntry(KM_TAG_APPLICATION_ID, 0, 3)}),
              WireList({BytesEntry(KM_TAG_NONCE, 3, 5)}), Ramp(0x10, 8), Bytes(2, 0xEE)});
}
constexpr char kSampleLists[] = "20000001=2 90000259:101112 | 900003e9:1314151617";

TEST_F(Decode, SplitsListsAndCopiesBytes) {
  EXPECT_EQ((Outcome{0, kSampleLists, {}}), Characteristics(SampleReply()));
  EXPECT_EQ((Outcome{0, " | ", {}}), Characteristics(Bytes(8)));
  EXPECT_EQ((Outcome{0, "", {}}), OneList(Bytes(4)));
  EXPECT_EQ((Outcome{0, "900003e9:0203 30000003=100", {}}),
            OneList(Cat({WireList({BytesEntry(KM_TAG_NONCE, 1, 2), Entry(KM_TAG_KEY_SIZE, 256)}),
                         Ramp(1, 4)})));
  // What the serialiser writes comes back.
  ParamSet set({{KM_TAG_APPLICATION_ID, Ramp(1, 16)}, {KM_TAG_PURPOSE, 3}});
  uint8_t* out = nullptr;
  uint32_t length = 0;
  ASSERT_EQ(0, BuildKmParams(set.get(), &out, &length));
  EXPECT_EQ((Outcome{0, "20000001=3 | 90000259:0102030405060708090a0b0c0d0e0f10", {}}),
            Characteristics(Bytes(out, out + length)));
  free(out);
}

TEST_F(Decode, ReadsEachTagType) {
  const uint64_t value = 0x1122334455667701;
  const std::string narrow = "=55667701", wide = "=1122334455667701", none = "=0";
  const std::string expected[] = {none, narrow, narrow, narrow, narrow, wide, wide, "=1",
                                  ":",  ":",    wide,   none,   none,   none, none, none};
  for (uint32_t type = 0; type < 16; ++type) {
    const uint32_t tag = type << 28 | 0x321;
    // Empty bytes decode whatever their offset and without any blob area.
    const Bytes entry = type == 8 || type == 9 ? BytesEntry(tag, 99, 0) : Entry(tag, value);
    keymaster_key_param_set_t name{};
    keymaster_key_param_t only{};
    only.tag = static_cast<keymaster_tag_t>(tag);
    name = {&only, 1};
    std::string text = Describe(name);
    text = text.substr(0, text.find_first_of("=:")) + expected[type];
    EXPECT_EQ((Outcome{0, text, {}}), OneList(WireList({entry})));
    EXPECT_EQ((Outcome{0, text + " | " + text, {}}),
              Characteristics(Cat({WireList({entry}), WireList({entry})})));
  }
}

TEST_F(Decode, RefusesBadArgumentsWithoutTouchingTheOutput) {
  const Bytes reply(8);
  keymaster_key_param_t marker{};
  keymaster_key_characteristics_t out{{&marker, 5}, {&marker, 6}};
  keymaster_key_param_set_t set{};
  EXPECT_EQ(-22, BuildKeyCharacter(nullptr, 8, &out));
  EXPECT_EQ(-22, BuildKeyCharacter(reply.data(), 8, nullptr));
  EXPECT_EQ(-22, BuildKeyParamSet(nullptr, reply.data(), 8));
  EXPECT_EQ(-22, BuildKeyParamSet(&set, nullptr, 8));
  EXPECT_EQ(Lines(), Log());
  for (uint32_t length = 0; length < 4; ++length) {
    platform().ClearRecords();
    EXPECT_EQ(-22, BuildKeyCharacter(ExactCopy(Bytes(length)).get(), length, &out));
    EXPECT_EQ(-22, BuildKeyParamSet(&set, ExactCopy(Bytes(length)).get(), length));
    EXPECT_EQ((Lines{"E KeyMaster_Ts: key_character_len too small, len=" + Number(length),
                     "E KeyMaster_Ts: param_len too samll(" + Number(length) + ")"}),
              Log());
  }
  EXPECT_TRUE(out.hw_enforced.params == &marker && out.hw_enforced.length == 5);
  EXPECT_TRUE(out.sw_enforced.params == &marker && out.sw_enforced.length == 6);
}

TEST_F(Decode, TruncationAtEachLengthLeavesNothing) {
  const Bytes reply = SampleReply();
  ASSERT_EQ(66u, reply.size());
  for (size_t n = 4; n <= reply.size(); ++n) {
    Outcome expected{-22, " | ", {}};
    if (n < 36) {
      expected.log = {"E KeyMaster_Ts: 1 invalid key character size, 4-2-" + Number(n),
                      std::string(kHardwareFailed) + "-22"};
    } else if (n < 40) {
      expected.log = {"E KeyMaster_Ts: 2 invalid key character size, 36-" + Number(n)};
    } else if (n < 56) {
      expected.log = {"E KeyMaster_Ts: 3 invalid key character size, 40-1-" + Number(n)};
    } else if (n < 64) {
      expected.result = -12;
    } else {
      expected = {0, kSampleLists, {}};
    }
    EXPECT_EQ(expected, Characteristics(Prefix(reply, n))) << n;
  }
  EXPECT_EQ((Outcome{-22, " | ", {"E KeyMaster_Ts: 2 invalid key character size, 4-4"}}),
            Characteristics(Bytes(4)));
  const Bytes list = Cat({WireList({Entry(1), BytesEntry(KM_TAG_NONCE, 0, 3)}), Ramp(7, 3)});
  for (size_t n = 4; n < list.size(); ++n) {
    const Lines log = n < 36 ? Lines{"E KeyMaster_Ts: invalid copy size, 2-" + Number(n)} : Lines();
    EXPECT_EQ((Outcome{-12, "", log}), OneList(Prefix(list, n))) << n;
  }
  EXPECT_EQ((Outcome{0, "1=0 900003e9:070809", {}}), OneList(list));
}

TEST_F(Decode, RefusesCountsThatTheReplyCannotHold) {
  const std::string hw = std::string(kHardwareFailed) + "-22";
  for (const uint32_t count : {3u, 0x08000000u, 0x0AAAAAAAu, 0x0AAAAAABu, 0x10000000u, 0x10000002u,
                               0x80000000u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(count);
    const bool too_many = count > 0x0AAAAAAA;
    const std::string size = "invalid key character size, ";
    Lines log = {"E KeyMaster_Ts: 1 " + size + "4-" + Number(count) + "-51", hw};
    FailCall(Call::kMalloc, 0);
    EXPECT_EQ((Outcome{-22, " | ", too_many ? Lines{hw} : log}),
              Characteristics(Cat({Le32(count), Bytes(47)})));
    EXPECT_EQ(0, CallCount(Call::kMalloc));
    log = {"E KeyMaster_Ts: 3 " + size + "24-" + Number(count) + "-71"};
    EXPECT_EQ((Outcome{-22, " | ", too_many ? Lines() : log}),
              Characteristics(Cat({WireList({Entry(1)}), Le32(count), Bytes(47)})));
    // With so many entries it may be the array's allocation that fails, which says nothing.
    const Outcome one = OneList(Cat({Le32(count), Bytes(47)}));
    EXPECT_EQ(-12, one.result);
    EXPECT_TRUE(count > 3 || one.log == Lines{"E KeyMaster_Ts: invalid copy size, 3-51"});
  }
}

TEST_F(Decode, RefusesBytesOutsideTheBlobArea) {
  const struct {
    uint32_t offset, length;
    bool fits;
  } cases[] = {{0, 8, true},           {0, 1, true},
               {7, 1, true},           {8, 0, true},
               {0xFFFFFFFF, 0, true},  {1, 8, false},
               {0, 9, false},          {8, 1, false},
               {9, 1, false},          {0xFFFFFFFF, 1, false},
               {0xFFFFFFFF, 2, false}, {1, 0xFFFFFFFF, false},
               {0, 0x80000000, false}, {0x80000000, 0x80000000, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(Number(c.offset) + " " + Number(c.length));
    const Bytes good = BytesEntry(KM_TAG_NONCE, 0, 2);
    for (const uint32_t tag : {0x80000001u, 0x90000001u}) {
      const Bytes entry = BytesEntry(tag, c.offset, c.length);
      const Bytes area = Ramp(1, 8);
      EXPECT_EQ(c.fits ? 0 : -12, OneList(Cat({WireList({good, entry}), area})).result);
      EXPECT_EQ(c.fits ? 0 : -12,
                Characteristics(Cat({WireList({good, entry}), WireList({good}), area})).result);
      EXPECT_EQ(c.fits ? 0 : -12,
                Characteristics(Cat({WireList({good}), WireList({good, entry}), area})).result);
    }
  }
}

TEST_F(Decode, AFailedAllocationOrCopyLeavesNothing) {
  const Lines hw = {std::string(kHardwareFailed) + "-12"};
  ForEachFault({Call::kMalloc, Call::kMemcpyS}, [&](const Fault& fault) {
    fault.Arm();
    const Outcome outcome = Characteristics(SampleReply());
    const bool array_failed = fault.call == Call::kMalloc && fault.nth == 1;
    EXPECT_EQ(fault.Hit() ? (Outcome{-12, " | ", array_failed ? hw : Lines()})
                          : (Outcome{0, kSampleLists, {}}),
              outcome);
  });
  ForEachFault({Call::kMalloc, Call::kMemcpyS}, [&](const Fault& fault) {
    fault.Arm();
    const Outcome outcome = OneList(Cat(
        {WireList({BytesEntry(KM_TAG_NONCE, 0, 2), BytesEntry(KM_TAG_NONCE, 2, 2)}), Bytes(4)}));
    EXPECT_EQ(
        fault.Hit() ? (Outcome{-12, "", {}}) : (Outcome{0, "900003e9:0000 900003e9:0000", {}}),
        outcome);
  });
}

}  // namespace
}  // namespace test

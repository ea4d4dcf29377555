// Replies to key parameters.
#include <keymaster_ts.h>
#include <string.h>

#include <memory>

#include "tests/platform/keymaster_test.h"

namespace test {
namespace {

using Decode = KeymasterTest;

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

// What came of a reply: "0: " and its lists, or "-22" and what was logged, each behind "; ".
std::string Outcome(int32_t result, const std::string& lists) {
  const std::string tag = "E KeyMaster_Ts: ";
  std::string text = std::to_string(result) + (result == 0 ? ": " + lists : "");
  for (const std::string& line : Log()) {
    text += "; " + (line.compare(0, tag.size(), tag) == 0 ? line.substr(tag.size()) : line);
  }
  return text;
}

// "0: hardware | software".
std::string Characteristics(const Bytes& reply) {
  platform().ClearRecords();
  keymaster_key_characteristics_t out{};
  const int32_t result =
      BuildKeyCharacter(ExactCopy(reply).get(), static_cast<uint32_t>(reply.size()), &out);
  const std::string hw = Take(result, &out.hw_enforced);
  return Outcome(result, hw + " | " + Take(result, &out.sw_enforced));
}

std::string OneList(const Bytes& reply) {
  platform().ClearRecords();
  // What a caller left in its set is not the decoder's to free.
  keymaster_key_param_t stale{};
  keymaster_key_param_set_t out{&stale, 1};
  const int32_t result =
      BuildKeyParamSet(&out, ExactCopy(reply).get(), static_cast<uint32_t>(reply.size()));
  return Outcome(result, Take(result, &out));
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
constexpr char kSampleLists[] = "0: 20000001=2 90000259:101112 | 900003e9:1314151617";
constexpr char kHardwareFailed[] = "Proc hw enforce failed, err=";

TEST_F(Decode, ReadsEachTagType) {
  EXPECT_EQ("0:  | ", Characteristics(Bytes(8)));
  EXPECT_EQ("0: ", OneList(Bytes(4)));
  const std::string narrow = "=55667702", wide = "=1122334455667702", none = "=0";
  const std::string expected[] = {none, narrow, narrow, narrow, narrow, wide, wide, "=1",
                                  ":",  ":",    wide,   none,   none,   none, none, none};
  for (uint32_t type = 0; type < 16; ++type) {
    const uint32_t tag = type << 28 | 0x321;
    // Empty bytes decode whatever their offset and without any blob area.
    const Bytes list =
        WireList({IsByteValued(tag) ? BytesEntry(tag, 99, 0) : Entry(tag, 0x1122334455667702)});
    const std::string name = type == 0 ? "321" : "0123456789abcdef"[type] + std::string("0000321");
    const std::string text = name + expected[type];
    EXPECT_EQ("0: " + text, OneList(list));
    EXPECT_EQ("0: " + text + " | " + text, Characteristics(Cat({list, list})));
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
  const std::string size = " invalid key character size, ";
  for (size_t n = 4; n <= 66; ++n) {
    const std::string expected =
        n < 36   ? "-22; 1" + size + "4-2-" + Number(n) + "; " + kHardwareFailed + "-22"
        : n < 40 ? "-22; 2" + size + "36-" + Number(n)
        : n < 56 ? "-22; 3" + size + "40-1-" + Number(n)
        : n < 64 ? "-12"
                 : kSampleLists;
    EXPECT_EQ(expected, Characteristics(Prefix(reply, n)));
  }
  EXPECT_EQ("-22; 2" + size + "4-4", Characteristics(Bytes(4)));
  const Bytes list = Cat({WireList({Entry(1), BytesEntry(KM_TAG_NONCE, 1, 2)}), Ramp(7, 3)});
  for (size_t n = 4; n <= list.size(); ++n) {
    EXPECT_EQ(n < 36   ? "-12; invalid copy size, 2-" + Number(n)
              : n < 39 ? "-12"
                       : "0: 1=0 900003e9:0809",
              OneList(Prefix(list, n)));
  }
}

TEST_F(Decode, RefusesCountsThatTheReplyCannotHold) {
  const std::string hw = std::string("; ") + kHardwareFailed + "-22";
  for (const uint32_t count :
       {3u, 0x08000000u, 0x0AAAAAAAu, 0x0AAAAAABu, 0x10000002u, 0xFFFFFFFFu}) {
    const auto size = [count](const std::string& place, const char* length) {
      // Above this not even the decoded array could be.
      if (count > 0x0AAAAAAA) return std::string();
      return "; " + place + Number(count) + length;
    };
    const std::string text = " invalid key character size, ";
    FailCall(Call::kMalloc, 0);
    EXPECT_EQ("-22" + size("1" + text + "4-", "-51") + hw,
              Characteristics(Cat({Le32(count), Bytes(47)})));
    EXPECT_EQ("-12; invalid copy size, " + Number(count) + "-51",
              OneList(Cat({Le32(count), Bytes(47)})));
    EXPECT_EQ(0, CallCount(Call::kMalloc));
    EXPECT_EQ("-22" + size("3" + text + "24-", "-71"),
              Characteristics(Cat({WireList({Entry(1)}), Le32(count), Bytes(47)})));
  }
}

TEST_F(Decode, RefusesBytesOutsideTheBlobArea) {
  const Bytes good = BytesEntry(KM_TAG_NONCE, 0, 2), area = Ramp(1, 8);
  constexpr uint32_t kFits[][2] = {{0, 8}, {7, 1}, {8, 0}, {0xFFFFFFFF, 0}};
  constexpr uint32_t kOutside[][2] = {
      {1, 8},          {0, 9},          {8, 1},          {9, 1},
      {0xFFFFFFFF, 1}, {0xFFFFFFFF, 2}, {1, 0xFFFFFFFF}, {0x80000000, 0x80000000}};
  const auto check = [&](uint32_t offset, uint32_t length, const char* code) {
    SCOPED_TRACE(Number(offset) + " " + Number(length));
    for (const uint32_t tag : {0x80000001u, 0x90000001u}) {
      const Bytes list = WireList({good, BytesEntry(tag, offset, length)});
      EXPECT_EQ(code, OneList(Cat({list, area})).substr(0, 3));
      EXPECT_EQ(code, Characteristics(Cat({list, WireList({good}), area})).substr(0, 3));
      EXPECT_EQ(code, Characteristics(Cat({WireList({good}), list, area})).substr(0, 3));
    }
  };
  for (const auto& [offset, length] : kFits) check(offset, length, "0: ");
  for (const auto& [offset, length] : kOutside) check(offset, length, "-12");
}

}  // namespace
}  // namespace test

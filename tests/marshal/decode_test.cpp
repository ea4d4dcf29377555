// Replies to key parameters.
#include <errno.h>
#include <keymaster_ts.h>

#include "tests/platform/keymaster_test.h"
#include "tests/requests/wire.h"

namespace test {
namespace {

using Decode = KeymasterTest;

// What came of a reply; a failure must leave empty lists.
struct Decoded {
  int32_t result;
  std::string hardware, software;
};

std::string Released(keymaster_key_param_set_t* set) {
  EXPECT_EQ(set->length == 0, set->params == nullptr);
  const std::string text = Describe(*set);
  FreeSet(set);
  return text;
}

// Both read a reply that ends where readable memory ends.
Decoded TwoListReply(const Bytes& reply) {
  platform().ClearRecords();
  const Fenced fenced(reply);
  keymaster_key_characteristics_t out{};
  const int32_t result =
      BuildKeyCharacter(fenced.data(), static_cast<uint32_t>(reply.size()), &out);
  const std::string hardware = Released(&out.hw_enforced);
  return {result, hardware, Released(&out.sw_enforced)};
}
Decoded OneListReply(const Bytes& reply) {
  platform().ClearRecords();
  const Fenced fenced(reply);
  // What a caller left in its set is not the decoder's to free.
  keymaster_key_param_t stale{};
  keymaster_key_param_set_t out{&stale, 1};
  const int32_t result = BuildKeyParamSet(&out, fenced.data(), static_cast<uint32_t>(reply.size()));
  return {result, Released(&out), ""};
}

void ExpectFailure(int32_t result, const Decoded& decoded) {
  EXPECT_EQ(result, decoded.result);
  EXPECT_EQ("", decoded.hardware + decoded.software);
}

Bytes Prefix(const Bytes& bytes, size_t length) {
  return Bytes(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(length));
}

// Two hardware entries, one of them bytes, one software entry of bytes, and bytes nobody asks for.
const Bytes kSample = Cat({TwoLists({{KM_TAG_PURPOSE, 2}, {KM_TAG_APPLICATION_ID, Ramp(0x10, 3)}},
                                    {{KM_TAG_NONCE, Ramp(0x13, 5)}}),
                           Bytes(2, 0xEE)});

TEST_F(Decode, ReadsEachTagType) {
  const std::string narrow = "=55667702", wide = "=1122334455667702", none = "=0";
  const std::string kValues[] = {none, narrow, narrow, narrow, narrow, wide, wide, "=1",
                                 ":",  ":",    wide,   none,   none,   none, none, none};
  for (uint32_t type = 0; type < 16; ++type) {
    const uint32_t tag = type << 28 | 0x321;
    // Empty bytes decode whatever their offset and without any blob area.
    const Bytes list =
        WireList({IsByteValued(tag) ? BytesEntry(tag, 99, 0) : Entry(tag, 0x1122334455667702)});
    const std::string name = type == 0 ? "321" : "0123456789abcdef"[type] + std::string("0000321");
    EXPECT_EQ(name + kValues[type], OneListReply(list).hardware);
    const Decoded both = TwoListReply(Cat({list, list}));
    EXPECT_EQ(name + kValues[type], both.hardware);
    EXPECT_EQ(name + kValues[type], both.software);
  }
}

TEST_F(Decode, ReadsEmptyLists) {
  EXPECT_EQ(0, TwoListReply(Bytes(8)).result);
  EXPECT_EQ(0, OneListReply(Bytes(4)).result);
}

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
    EXPECT_EQ(-EINVAL, BuildKeyCharacter(Fenced(Bytes(4)).data(), length, &out));
    EXPECT_EQ(-EINVAL, BuildKeyParamSet(&out.hw_enforced, Fenced(Bytes(4)).data(), length));
  }
  EXPECT_TRUE(out.hw_enforced.params == &marker && out.hw_enforced.length == 5);
  EXPECT_TRUE(out.sw_enforced.params == &marker && out.sw_enforced.length == 6);
}

TEST_F(Decode, SaysWhereAReplyIsTruncatedAndLeavesNothing) {
  const std::pair<size_t, const char*> kRows[] = {{4, "1 invalid key character size, 4-2-4"},
                                                  {35, "1 invalid key character size, 4-2-35"},
                                                  {39, "2 invalid key character size, 36-39"},
                                                  {55, "3 invalid key character size, 40-1-55"}};
  for (const auto& [length, message] : kRows) {
    ExpectFailure(-EINVAL, TwoListReply(Prefix(kSample, length)));
    EXPECT_EQ(std::string("E KeyMaster_Ts: ") + message, Log().at(0));
  }
  ExpectFailure(-ENOMEM, TwoListReply(Prefix(kSample, 63)));
  ExpectFailure(-ENOMEM, OneListReply(Prefix(kSample, 35)));
  EXPECT_EQ(Lines{"E KeyMaster_Ts: invalid copy size, 2-35"}, Log());
  const Decoded whole = TwoListReply(kSample);
  EXPECT_EQ("20000001=2 90000259:101112", whole.hardware);
  EXPECT_EQ("900003e9:1314151617", whole.software);
}

TEST_F(Decode, RejectsCountsThatTheReplyCannotHoldBeforeItAllocates) {
  for (const uint32_t count :
       {3u, 0x08000000u, 0x0AAAAAAAu, 0x0AAAAAABu, 0x10000002u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(count);
    const Bytes counted = Cat({Le32(count), Bytes(47)});
    FailCall(Call::kMalloc, 0);
    ExpectFailure(-EINVAL, TwoListReply(counted));
    // Above this not even the decoded array could be.
    EXPECT_EQ(count > 0x0AAAAAAA ? 1u : 2u, Log().size());
    ExpectFailure(-ENOMEM, OneListReply(counted));
    EXPECT_EQ(0, CallCount(Call::kMalloc));
    ExpectFailure(-EINVAL, TwoListReply(Cat({WireList({Entry(1)}), counted})));
  }
}

TEST_F(Decode, RejectsBytesOutsideTheBlobArea) {
  const Bytes good = BytesEntry(KM_TAG_NONCE, 0, 2), area = Ramp(1, 8);
  const struct {
    uint32_t offset, length;
    bool fits;
  } kRows[] = {{0, 8, true},           {7, 1, true},           {8, 0, true},
               {0xFFFFFFFF, 0, true},  {1, 8, false},          {0, 9, false},
               {8, 1, false},          {9, 1, false},          {0xFFFFFFFF, 1, false},
               {0xFFFFFFFF, 2, false}, {1, 0xFFFFFFFF, false}, {0x80000000, 0x80000000, false}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(std::to_string(row.offset) + " " + std::to_string(row.length));
    const int32_t result = row.fits ? 0 : -ENOMEM;
    for (const uint32_t tag : {0x80000001u, 0x90000001u}) {
      const Bytes list = WireList({good, BytesEntry(tag, row.offset, row.length)}),
                  other = WireList({good});
      EXPECT_EQ(result, OneListReply(Cat({list, area})).result);
      EXPECT_EQ(result, TwoListReply(Cat({list, other, area})).result);
      EXPECT_EQ(result, TwoListReply(Cat({other, list, area})).result);
    }
  }
}

}  // namespace
}  // namespace test

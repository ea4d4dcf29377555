// The keymaster support library, on a wrapper of every field.
#include <gtest/gtest.h>
#include <keymaster/wrapped_key.h>

#include <algorithm>
#include <sstream>

#include "tests/requests/wire.h"

namespace test {
namespace {

using keymaster::TKeymasterBlob;

// Every field of an authorization list, in their order.
constexpr uint32_t kFields[] = {
    0x20000001, 0x10000002, 0x30000003, 0x20000004, 0x20000005, 0x20000006, 0x70000007, 0x30000008,
    0x1000000A, 0x500000C8, 0x7000012F, 0x60000190, 0x60000191, 0x60000192, 0xA00001F6, 0x700001F7,
    0x100001F8, 0x300001F9, 0x700001FA, 0x700001FB, 0x700001FC, 0x700001FD, 0x70000258, 0x90000259,
    0x900002BC, 0x600002BD, 0x100002BE, 0x900002C0, 0x300002C1, 0x300002C2, 0x900002C3, 0x900002C4,
    0x900002C5, 0x900002C6, 0x900002C7, 0x900002C8, 0x900002C9, 0x900002CA, 0x900002CB, 0x900002CC,
    0x900002CD, 0x300002CE, 0x300002CF, 0x900003EA};

// Field is a field by its tag, whose type is no part of its number.
Bytes Field(uint32_t tag, const Bytes& content) {
  const uint32_t number = tag & 0x0FFFFFFF;
  const auto high = static_cast<uint8_t>(number / 128), low = static_cast<uint8_t>(number % 128);
  if (number < 31) return Der({static_cast<uint8_t>(0xA0 + number)}, {content});
  return Der({0xBF, static_cast<uint8_t>(0x80 + high), low}, {content});
}

// Integer is an INTEGER of so many bytes.
Bytes Integer(uint64_t value, size_t size) {
  const Bytes little = LittleEndian(value, 8);
  Bytes content(size);
  std::reverse_copy(little.begin(), little.begin() + static_cast<ptrdiff_t>(size) - 1,
                    content.begin() + 1);
  return Der({2}, {content});
}

TEST(ParseWrappedKey, ReadsEveryFieldOfTheWrapper) {
  // The values are the largest that fit, less the tag's number.
  Bytes fields;
  std::ostringstream expected, found;
  for (const uint32_t tag : kFields) {
    const uint32_t type = tag >> 28, number = tag & 0x0FFFFFFF;
    const bool is_long = type == 5 || type == 6 || type == 10;
    const uint64_t value = type == 7 ? 1 : (is_long ? UINT64_MAX : UINT32_MAX) - number;
    const Bytes integer = Integer(value, is_long ? 9 : 5);
    fields = Cat({fields, Field(tag, type == 7   ? Bytes{5, 0}
                                     : type == 9 ? Der({4}, {Le64(number)})
                                     : type == 2 ? Der({0x31}, {{2, 1, 5}, integer})
                                                 : integer)});
    if (type == 2) expected << tag << " 5\n";
    expected << tag << ' ' << (type == 9 ? number : value) << '\n';
  }
  const Bytes described = Der({0x30}, {{2, 1, 3}, Der({0x30}, {fields})});
  const Bytes der =
      Der({0x30}, {{2, 1, 0, 4, 1, 0xAA, 4, 1, 0xBB}, described, {4, 1, 0xCC, 4, 1, 0xDD}});
  TKeymasterBlob<keymaster_key_blob_t> wrapped, transit_key, secure_key;
  wrapped.key_material = keymaster::dup_buffer(der.data(), der.size());
  wrapped.key_material_size = der.size();
  TKeymasterBlob<keymaster_blob_t> iv, tag, description;
  keymaster::AuthorizationSet set;
  keymaster_key_format_t format = KM_KEY_FORMAT_X509;
  ASSERT_EQ(KM_ERROR_OK, parse_wrapped_key(wrapped, &iv, &transit_key, &secure_key, &tag, &set,
                                           &format, &description));
  for (const keymaster_key_param_t& param : set) {
    uint64_t value = param.long_integer;  // the upper part of a shorter value is 0
    if (IsByteValued(param.tag)) memcpy(&value, param.blob.data, param.blob.data_length);
    found << static_cast<uint32_t>(param.tag) << ' ' << value << '\n';
  }
  EXPECT_EQ(expected.str(), found.str());
  EXPECT_EQ(KM_KEY_FORMAT_RAW, format);
  EXPECT_EQ(Bytes({0xAA, 0xBB, 0xCC, 0xDD}),
            Cat({BlobBytes(transit_key), BlobBytes(iv), BlobBytes(secure_key), BlobBytes(tag)}));
  EXPECT_EQ(described, BlobBytes(description));
}

}  // namespace
}  // namespace test

// The keymaster support library, on a wrapper of every field and on DER that is wrong in one place.
#include <gtest/gtest.h>
#include <keymaster/keymaster_configuration.h>
#include <keymaster/wrapped_key.h>

#include <iomanip>
#include <sstream>
#include <string>

#include "tests/platform/keys.h"

namespace keymaster {
namespace {

// Every field of an authorization list: its tag, its content in DER, its value. A field's number is
// its tag's without the type.
constexpr char kFields[] =
    "20000001 3103020105 5  10000002 02020080 128  30000003 020500ffffffff 4294967295  "
    "20000004 3103020120 32  20000005 3103020106 6  20000006 3103020140 64  70000007 0500 1  "
    "30000008 02020080 128  1000000a 020103 3  500000c8 0203010001 65537  7000012f 0500 1  "
    "60000190 020100 0  60000191 020603bb2cc3d800 4102444800000  "
    "60000192 020900ffffffffffffffff 18446744073709551615  "
    "a00001f6 0209008000000000000000 9223372036854775808  700001f7 0500 1  "
    "100001f8 020500ffffffff 4294967295  300001f9 02011e 30  700001fa 0500 1  700001fb 0500 1  "
    "700001fc 0500 1  700001fd 0500 1  70000258 0500 1  90000259 0403617070 'app'  "
    "900002bc 0400 ''  600002bd 020101 1  100002be 020104 4  900002c0 040172 'r'  "
    "300002c1 020301adb0 110000  300002c2 0203031575 202101  900002c3 040175 'u'  "
    "900002c4 040163 'c'  900002c5 040161 'a'  900002c6 040162 'b'  900002c7 040164 'd'  "
    "900002c8 040170 'p'  900002c9 040173 's'  900002ca 040169 'i'  900002cb 04016d 'm'  "
    "900002cc 040166 'f'  900002cd 04016f 'o'  300002ce 0204013461b9 20210105  "
    "300002cf 0204013461ba 20210106  900003ea 0403746f6b 'tok'  ";

std::string Unhex(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i < hex.size(); i += 2) {
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return out;
}

std::string Tlv(const std::string& tag, const std::string& hex) {
  char length[8];
  snprintf(length, sizeof(length), hex.size() < 256 ? "%02zx" : "82%04zx", hex.size() / 2);
  return tag + length + hex;
}

// The fields as a list in hexadecimal, or as Describe says them.
std::string Fields(bool encoded) {
  std::istringstream in(kFields);
  std::ostringstream list, described;
  for (std::string tag, content, value; in >> tag >> content >> value;) {
    const unsigned long number = std::stoul(tag, nullptr, 16) & 0x0FFFFFFF;
    std::ostringstream context;
    context << std::hex;
    if (number < 31) {
      context << 0xA0 + number;
    } else {
      context << "bf" << 0x80 + number / 128 << std::setw(2) << std::setfill('0') << number % 128;
    }
    list << Tlv(context.str(), content);
    described << tag << ':' << value << ' ';
  }
  return encoded ? list.str() : described.str();
}

// A wrapper of short parts in hexadecimal.
std::string Wrapper(const std::string& params, const std::string& format = "020103",
                    const std::string& version = "020100", const std::string& rest = "0401dd") {
  const std::string description = Tlv("30", format + Tlv("30", params));
  return Tlv("30", version + "0401aa0401bb" + description + "0401cc" + rest);
}

std::string Text(const keymaster_blob_t& blob) {
  return {reinterpret_cast<const char*>(blob.data), blob.data_length};
}

std::string Describe(const AuthorizationSet& set) {
  std::ostringstream out;
  for (const keymaster_key_param_t& param : set) {
    out << std::hex << static_cast<uint32_t>(param.tag) << ':' << std::dec;
    if (keymaster_tag_get_type(param.tag) == KM_BYTES) {
      out << '\'' << Text(param.blob) << "' ";
    } else {
      out << param.long_integer << ' ';  // the upper part of a shorter value is 0
    }
  }
  return out.str();
}

struct Parsed {
  TKeymasterBlob<keymaster_blob_t> iv, tag, description;
  TKeymasterBlob<keymaster_key_blob_t> transit_key, secure_key;
  AuthorizationSet set;
  keymaster_key_format_t format = KM_KEY_FORMAT_X509;

  keymaster_error_t Parse(const std::string& der) {
    TKeymasterBlob<keymaster_key_blob_t> wrapped;  // of exactly its size, for the sanitizer
    wrapped.key_material = dup_buffer(der.data(), der.size());
    wrapped.key_material_size = der.size();
    return parse_wrapped_key(wrapped, &iv, &transit_key, &secure_key, &tag, &set, &format,
                             &description);
  }
};

TEST(ParseWrappedKey, ReadsEveryFieldOfTheWrapper) {
  Parsed parsed;
  ASSERT_EQ(KM_ERROR_OK, parsed.Parse(Unhex(Wrapper(Fields(true)))));
  EXPECT_EQ(KM_KEY_FORMAT_RAW, parsed.format);
  EXPECT_EQ("\xbb", Text(parsed.iv));
  EXPECT_EQ("\xdd", Text(parsed.tag));
  EXPECT_EQ(0xCC, parsed.secure_key.key_material[0]);
  EXPECT_EQ(0xAA, parsed.transit_key.key_material[0]);
  EXPECT_EQ(Fields(false), Describe(parsed.set));
}

TEST(ParseWrappedKey, AcceptsOtherEncodingsAndKeepsThem) {
  const std::pair<const char*, const char*> kRows[] = {
      // Nothing, an empty set, the largest number, a long-form length.
      {"", "0401dd"},
      {"a1023100", "0401dd"},
      {"a307020500ffffffff", "0401dd"},
      {"a38103020101", "0401dd"},
      // Indefinite lengths, which BoringSSL rejects.
      {"a380020200800000", "0401dd"},
      {"", "24800401dd0000"},
  };
  for (const auto& [params, tag] : kRows) {
    Parsed parsed;
    const std::string der = Unhex(Wrapper(params, "020103", "020100", tag));
    if (parsed.Parse(der) == KM_ERROR_OK) {
      EXPECT_EQ("\xdd", Text(parsed.tag));
      EXPECT_EQ(der.substr(11, static_cast<size_t>(der[12]) + 2), Text(parsed.description));
    } else {
      const bool indefinite = (params + std::string(tag)).find("80") != std::string::npos;
      EXPECT_TRUE(test::kBoringSsl && indefinite) << params;
    }
  }
}

TEST(ParseWrappedKey, RefusesWhatIsWrongInOnePlace) {
  const std::string kRows[] = {
      // Versions 1, -1 and 2^64; formats 2, -1 and 2^32 + 3; bytes behind the end and the tag.
      Wrapper("", "020103", "020101"), Wrapper("", "020103", "0201ff"),
      Wrapper("", "020103", "0209010000000000000000"), Wrapper("", "020102"), Wrapper("", "0201ff"),
      Wrapper("", "02050100000003"), Wrapper("") + "00",
      Wrapper("", "020103", "020100", "0401dd0500"),
      // A number below 0, above 32 bits (also in a set) and above 64 bits; an empty one.
      Wrapper("a3030201ff"), Wrapper("a30702050100000000"), Wrapper("a109310702050100000000"),
      Wrapper("bf83100b0209010000000000000000"), Wrapper("a3020200"),
      // Fields out of order, twice, unknown; a null with content; a set of secure ids.
      Wrapper("a303020101a203020120"), Wrapper("a303020101a303020101"), Wrapper("a903020101"),
      Wrapper("a703050100"), Wrapper("bf8376053103020101")};
  for (const std::string& row : kRows) {
    Parsed parsed;
    EXPECT_EQ(KM_ERROR_INVALID_ARGUMENT, parsed.Parse(Unhex(row))) << row;
    EXPECT_TRUE(parsed.set.empty()) << row;
  }
}

TEST(Configuration, TakesOnlyWholeNumbersFromTheEnvironment) {
  EXPECT_EQ(110000u, GetOsVersion());
  setenv("KEYMASTER_OS_PATCHLEVEL", "4294967295", 1);
  EXPECT_EQ(4294967295u, GetOsPatchlevel());
  for (const char* text : {"4294967296", "-1", "2022-03", ""}) {
    setenv("KEYMASTER_OS_PATCHLEVEL", text, 1);
    EXPECT_EQ(202101u, GetOsPatchlevel()) << text;
  }
}

}  // namespace
}  // namespace keymaster

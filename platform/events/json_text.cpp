#include "json_text.h"

#include <cstdint>

namespace {

// The lead bytes of well-formed UTF-8 and what may follow each: the second byte's range shuts out
// overlong forms, surrogates and what lies above U+10FFFF.
struct Lead {
  uint8_t first, last, length, second_min, second_max;
};
constexpr Lead kLeads[] = {
    {0x00, 0x7F, 1, 0, 0},       {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF},
    {0xE1, 0xEC, 3, 0x80, 0xBF}, {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF}, {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F},
};

uint8_t ByteAt(std::string_view text, size_t at) { return static_cast<uint8_t>(text[at]); }

// CharacterLength returns the bytes of the UTF-8 character that text begins with, 0 for none.
size_t CharacterLength(std::string_view text) {
  for (const Lead& lead : kLeads) {
    if (ByteAt(text, 0) < lead.first || ByteAt(text, 0) > lead.last) continue;
    if (text.size() < lead.length) return 0;
    for (size_t at = 1; at < lead.length; ++at) {
      const uint8_t min = at == 1 ? lead.second_min : 0x80;
      const uint8_t max = at == 1 ? lead.second_max : 0xBF;
      if (ByteAt(text, at) < min || ByteAt(text, at) > max) return 0;
    }
    return lead.length;
  }
  return 0;
}

}  // namespace

std::string JsonString(std::string_view text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string json = "\"";
  while (!text.empty()) {
    const uint8_t byte = ByteAt(text, 0);
    const size_t length = CharacterLength(text);
    if (length == 0 || byte < 0x20) {
      json.append("\\u00").append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 0xF]);
      text.remove_prefix(1);
      continue;
    }
    if (byte == '"' || byte == '\\') json.push_back('\\');
    json.append(text.substr(0, length));
    text.remove_prefix(length);
  }
  return json.append("\"");
}

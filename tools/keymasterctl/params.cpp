#include "params.h"

#include <errno.h>
#include <openssl/crypto.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>

#include "errors.h"
#include "names.h"

namespace {

[[noreturn]] void RefuseValue(const std::string& name, const std::string& text) {
  throw UsageFailure("'" + text + "' is no value for " + name);
}

// Whether the text that follows a flag's name sets it.
bool IsSet(const std::string& name, const std::string& text) {
  for (const char* yes : {"yes", "true", "1"}) {
    if (text == yes) return true;
  }
  for (const char* no : {"no", "false", "0"}) {
    if (text == no) return false;
  }
  RefuseValue(name, text);
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

ParamList::~ParamList() {
  for (Bytes& bytes : bytes_) OPENSSL_cleanse(bytes.data(), bytes.size());
}

void ParamList::Add(keymaster_tag_t tag, uint64_t value) {
  keymaster_key_param_t param = {};
  param.tag = tag;
  switch (keymaster_tag_get_type(tag)) {
    case KM_ULONG:
    case KM_ULONG_REP:
      param.long_integer = value;
      break;
    case KM_DATE:
      param.date_time = value;
      break;
    case KM_BOOL:
      param.boolean = value != 0;
      break;
    default:
      if (value > UINT32_MAX) throw UsageFailure("the value of " + TagName(tag) + " is too large");
      param.integer = static_cast<uint32_t>(value);
  }
  params_.push_back(param);
}

void ParamList::Add(keymaster_tag_t tag, const Bytes& bytes) {
  bytes_.push_back(bytes);
  // The library takes a null pointer for a missing value, so an empty one points somewhere.
  static const uint8_t kNothing = 0;
  keymaster_key_param_t param = {};
  param.tag = tag;
  param.blob = {bytes.empty() ? &kNothing : bytes_.back().data(), bytes.size()};
  params_.push_back(param);
}

void ParamList::AddText(const std::string& text) {
  const size_t equals = text.find('=');
  const std::string name = text.substr(0, equals);
  const keymaster_tag_t tag = TagByName(name);
  if (keymaster_tag_get_type(tag) == KM_BOOL) {
    if (equals == std::string::npos || IsSet(name, text.substr(equals + 1))) AddFlag(tag);
    return;
  }
  if (equals == std::string::npos) throw UsageFailure("write " + name + "=VALUE");
  const std::string value = text.substr(equals + 1);
  const keymaster_tag_type_t type = keymaster_tag_get_type(tag);
  if (type == KM_BYTES || type == KM_BIGNUM) return Add(tag, ParseBytes(value));
  if (type == KM_DATE) return Add(tag, ParseDate(value));
  const std::optional<uint32_t> named = ValueByName(tag, value);
  const std::optional<uint64_t> number = ParseNumber(value);
  if (!named && !number) RefuseValue(name, value);
  Add(tag, named ? *named : *number);
}

bool ParamList::Contains(keymaster_tag_t tag) const {
  return std::any_of(params_.begin(), params_.end(),
                     [tag](const keymaster_key_param_t& param) { return param.tag == tag; });
}

const keymaster_key_param_set_t* ParamList::set() {
  set_ = {params_.data(), params_.size()};
  return &set_;
}

uint64_t NumberOf(const keymaster_key_param_t& param) {
  switch (keymaster_tag_get_type(param.tag)) {
    case KM_ULONG:
    case KM_ULONG_REP:
      return param.long_integer;
    case KM_DATE:
      return param.date_time;
    case KM_BOOL:
      return param.boolean ? 1 : 0;
    default:
      return param.integer;
  }
}

std::vector<uint32_t> ValuesOf(const keymaster_key_param_set_t& set, keymaster_tag_t tag) {
  std::vector<uint32_t> values;
  for (size_t i = 0; i < set.length; ++i) {
    if (set.params[i].tag == tag) values.push_back(set.params[i].integer);
  }
  return values;
}

std::optional<uint64_t> ParseNumber(const std::string& text) {
  const bool hex = text.compare(0, 2, "0x") == 0;
  const std::string digits = hex ? text.substr(2) : text;
  const char* const allowed = hex ? "0123456789abcdefABCDEF" : "0123456789";
  if (digits.empty() || digits.find_first_not_of(allowed) != std::string::npos) return std::nullopt;
  errno = 0;
  const uint64_t value = strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
  return errno == 0 ? std::optional<uint64_t>(value) : std::nullopt;
}

std::optional<Bytes> ParseHex(const std::string& text) {
  if (text.size() % 2 != 0) return std::nullopt;
  Bytes bytes;
  for (size_t i = 0; i < text.size(); i += 2) {
    const int high = HexDigit(text[i]);
    const int low = HexDigit(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<uint8_t>(high * 16 + low));
  }
  return bytes;
}

Bytes ParseBytes(const std::string& text) {
  if (text.compare(0, 2, "0x") == 0) {
    const std::optional<Bytes> bytes = ParseHex(text.substr(2));
    if (!bytes)
      throw UsageFailure("'" + text + "' is not hexadecimal (two digits a byte behind 0x)");
    return *bytes;
  }
  if (text.compare(0, 1, "@") == 0) return ReadFile(text.substr(1));
  return Bytes(text.begin(), text.end());
}

std::string ToHex(const Bytes& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (uint8_t byte : bytes) {
    out += kDigits[byte >> 4];
    out += kDigits[byte & 15];
  }
  return out;
}

uint64_t ParseDate(const std::string& text) {
  for (const char* format : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d", "%s"}) {
    tm fields = {};
    const char* end = strptime(text.c_str(), format, &fields);
    if (end == nullptr || (*end != '\0' && strcmp(end, "Z") != 0)) continue;
    const time_t seconds = strcmp(format, "%s") == 0 ? mktime(&fields) : timegm(&fields);
    if (seconds >= 0) return static_cast<uint64_t>(seconds) * 1000;
  }
  throw UsageFailure("'" + text + "' is no date; write YYYY-MM-DD or YYYY-MM-DDThh:mm:ss (UTC)");
}

std::string DateText(uint64_t milliseconds) {
  const time_t seconds = static_cast<time_t>(milliseconds / 1000);
  tm fields = {};
  char text[40];
  if (gmtime_r(&seconds, &fields) == nullptr ||
      strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &fields) == 0) {
    return std::to_string(milliseconds) + " ms";
  }
  return text;
}

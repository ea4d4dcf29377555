#include "tools/keymasterctl/params.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>

#include "tools/keymasterctl/errors.h"
#include "tools/keymasterctl/names.h"

namespace {

bool IsWide(keymaster_tag_t tag) {
  const keymaster_tag_type_t type = keymaster_tag_get_type(tag);
  return type == KM_ULONG || type == KM_ULONG_REP || type == KM_DATE;
}

// Milliseconds since 1970 of YYYY-MM-DD[Thh:mm:ss] (UTC) or plain seconds.
uint64_t ParseDate(const std::string& text) {
  for (const char* format : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d", "%s"}) {
    tm fields = {};
    const char* const end = strptime(text.c_str(), format, &fields);
    if (end == nullptr || (*end != '\0' && strcmp(end, "Z") != 0)) continue;
    const time_t seconds = strcmp(format, "%s") == 0 ? mktime(&fields) : timegm(&fields);
    if (seconds >= 0) return static_cast<uint64_t>(seconds) * 1000;
  }
  throw UsageFailure("'" + text + "' is no date; write YYYY-MM-DD or YYYY-MM-DDThh:mm:ss (UTC)");
}

// The value of a number or of an enumerated value's name; what does not parse is rejected.
uint64_t ParseValue(keymaster_tag_t tag, const std::string& text) {
  const std::optional<uint32_t> named = ValueByName(tag, text);
  const std::optional<uint64_t> number = ParseNumber(text);
  const std::string names = ValueNames(tag);
  RequireUsage(named || number,
               "'" + text + "' is no value for " + TagName(tag) +
                   (names.empty() ? ": it takes a number" : ", which are " + names));
  return named ? *named : *number;
}

}  // namespace

void ParamList::Add(keymaster_tag_t tag, uint64_t value) {
  keymaster_key_param_t param = {};
  param.tag = tag;
  if (IsWide(tag)) {
    param.long_integer = value;
  } else if (keymaster_tag_get_type(tag) == KM_BOOL) {
    param.boolean = value != 0;
  } else {
    RequireUsage(value <= UINT32_MAX, "the value of " + TagName(tag) + " is too large");
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

void ParamList::AddText(keymaster_tag_t tag, const std::string& text) {
  const keymaster_tag_type_t type = keymaster_tag_get_type(tag);
  if (IsBytes(tag)) {
    Add(tag, ParseBytes(text));
  } else if (type == KM_DATE) {
    Add(tag, ParseDate(text));
  } else if (type != KM_BOOL) {
    Add(tag, ParseValue(tag, text));
  } else if (!::Contains(Split("no,false,0", ','), text)) {
    RequireUsage(::Contains(Split("yes,true,1", ','), text),
                 "'" + text + "' is no value for " + TagName(tag) + ": it takes yes or no");
    Add(tag, 1);
  }
}

void ParamList::AddNamed(const std::string& text) {
  const size_t equals = text.find('=');
  const std::string name = text.substr(0, equals);
  const keymaster_tag_t tag = TagByName(name);
  const bool flag = keymaster_tag_get_type(tag) == KM_BOOL;
  RequireUsage(flag || equals != std::string::npos, "write " + name + "=VALUE");
  AddText(tag, equals == std::string::npos ? "yes" : text.substr(equals + 1));
}

void ParamList::Default(keymaster_tag_t tag, const std::vector<std::string>& texts) {
  if (!Contains(tag)) {
    for (const std::string& text : texts) {
      AddText(tag, text);
    }
  }
}

std::vector<uint32_t> ParamList::Take(keymaster_tag_t tag) {
  std::vector<uint32_t> values = Values(tag);
  const auto is_taken = [tag](const keymaster_key_param_t& param) { return param.tag == tag; };
  params_.erase(std::remove_if(params_.begin(), params_.end(), is_taken), params_.end());
  return values;
}

void ParamList::Sort(const std::vector<keymaster_tag_t>& order) {
  const auto place = [&order](const keymaster_key_param_t& param) {
    return std::find(order.begin(), order.end(), param.tag);
  };
  std::stable_sort(params_.begin(), params_.end(), [&place](const auto& one, const auto& other) {
    return place(one) < place(other);
  });
}

bool ParamList::Contains(keymaster_tag_t tag) const { return !Values(tag).empty(); }

bool ParamList::Contains(keymaster_tag_t tag, uint32_t value) const {
  return ::Contains(Values(tag), value);
}

std::vector<uint32_t> ParamList::Values(keymaster_tag_t tag) const {
  std::vector<uint32_t> values;
  for (const keymaster_key_param_t& param : params_) {
    if (param.tag == tag) values.push_back(param.integer);
  }
  return values;
}

const keymaster_blob_t* ParamList::BytesOf(keymaster_tag_t tag) const {
  for (const keymaster_key_param_t& param : params_) {
    if (param.tag == tag) return &param.blob;
  }
  return nullptr;
}

const keymaster_key_param_set_t* ParamList::set() {
  set_ = {params_.data(), params_.size()};
  return &set_;
}

uint64_t NumberOf(const keymaster_key_param_t& param) {
  if (keymaster_tag_get_type(param.tag) == KM_BOOL) return param.boolean ? 1 : 0;
  return IsWide(param.tag) ? param.long_integer : param.integer;
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
  if (text.size() % 2 != 0 ||
      text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    return std::nullopt;
  }
  Bytes bytes;
  for (size_t i = 0; i < text.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

Bytes ParseBytes(const std::string& text) {
  if (text.compare(0, 2, "0x") == 0) {
    const std::optional<Bytes> bytes = ParseHex(text.substr(2));
    RequireUsage(bytes.has_value(),
                 "'" + text + "' is not hexadecimal (two digits a byte behind 0x)");
    return *bytes;
  }
  return text.compare(0, 1, "@") == 0 ? ReadFile(text.substr(1)) : Bytes(text.begin(), text.end());
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

std::string DateText(uint64_t milliseconds) {
  const time_t seconds = static_cast<time_t>(milliseconds / 1000);
  tm fields = {};
  char text[40];
  const bool fits = gmtime_r(&seconds, &fields) != nullptr &&
                    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &fields) != 0;
  return fits ? text : std::to_string(milliseconds) + " ms";
}

std::vector<std::string> Args::Texts(const std::string& name) const {
  const auto values = values_.find(name);
  return values != values_.end() ? values->second : std::vector<std::string>();
}

std::string Args::Text(const std::string& name, const std::string& otherwise) const {
  return Has(name) ? Texts(name).back() : otherwise;
}

std::optional<uint64_t> Args::Number(const std::string& name) const {
  return ParseNumber(Text(name));
}

std::optional<uint32_t> Args::Value(const std::string& name, keymaster_tag_t tag) const {
  const std::optional<uint32_t> named = ValueByName(tag, Text(name));
  return named || !Number(name) ? named : static_cast<uint32_t>(*Number(name));
}

void Args::AddBindingTo(ParamList* params) const {
  for (const auto& [name, tag] : {std::pair("app-id", KM_TAG_APPLICATION_ID),
                                  std::pair("app-data", KM_TAG_APPLICATION_DATA)}) {
    params->Default(tag, Texts(name));
  }
}

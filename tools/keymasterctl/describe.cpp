#include "describe.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "names.h"
#include "params.h"
#include "report.h"
#include "session.h"
#include "terminal.h"

namespace {

bool IsRepeatable(keymaster_tag_t tag) {
  const keymaster_tag_type_t type = keymaster_tag_get_type(tag);
  return type == KM_ENUM_REP || type == KM_UINT_REP || type == KM_ULONG_REP;
}

bool IsEnumerated(keymaster_tag_t tag) {
  const keymaster_tag_type_t type = keymaster_tag_get_type(tag);
  return type == KM_ENUM || type == KM_ENUM_REP;
}

bool IsBytes(keymaster_tag_t tag) {
  const keymaster_tag_type_t type = keymaster_tag_get_type(tag);
  return type == KM_BYTES || type == KM_BIGNUM;
}

std::string ValueText(const keymaster_key_param_t& param) {
  if (IsBytes(param.tag)) return "0x" + ToHex(Copy(param.blob));
  if (IsEnumerated(param.tag)) return ValueName(param.tag, param.enumerated);
  if (keymaster_tag_get_type(param.tag) == KM_DATE) return DateText(param.date_time);
  if (keymaster_tag_get_type(param.tag) == KM_BOOL) return param.boolean ? "yes" : "no";
  return std::to_string(NumberOf(param));
}

std::string ValueJson(const keymaster_key_param_t& param) {
  if (IsBytes(param.tag)) return '"' + ToHex(Copy(param.blob)) + '"';
  if (IsEnumerated(param.tag)) return '"' + ValueName(param.tag, param.enumerated) + '"';
  if (keymaster_tag_get_type(param.tag) == KM_BOOL) return param.boolean ? "true" : "false";
  return std::to_string(NumberOf(param));
}

// The tags in their order of appearance, each with its values joined by ", ".
std::vector<std::pair<keymaster_tag_t, std::string>> Group(
    const keymaster_key_param_set_t& set, std::string (*text)(const keymaster_key_param_t&)) {
  std::vector<std::pair<keymaster_tag_t, std::string>> groups;
  for (size_t i = 0; i < set.length; ++i) {
    const keymaster_key_param_t& param = set.params[i];
    const auto group = std::find_if(groups.begin(), groups.end(), [&param](const auto& entry) {
      return entry.first == param.tag;
    });
    if (group == groups.end()) {
      groups.emplace_back(param.tag, text(param));
    } else {
      group->second += ", " + text(param);
    }
  }
  return groups;
}

}  // namespace

std::string SetJson(const keymaster_key_param_set_t& set, size_t indent) {
  std::vector<std::pair<std::string, std::string>> members;
  for (const auto& [tag, values] : Group(set, ValueJson)) {
    members.emplace_back(TagName(tag), IsRepeatable(tag) ? "[" + values + "]" : values);
  }
  return JsonObject(members, indent);
}

std::string DescribeSet(const keymaster_key_param_set_t& set) {
  std::string out;
  for (const auto& [tag, values] : Group(set, ValueText)) {
    std::string name = TagName(tag);
    name.resize(std::max<size_t>(name.size() + 1, 28), ' ');
    out += "  " + Paint(stdout, Color::kBold, name) + values + "\n";
  }
  return out.empty() ? "  (nothing)\n" : out;
}

std::string DescribeText(const keymaster_key_characteristics_t& characteristics) {
  return "hardware-enforced:\n" + DescribeSet(characteristics.hw_enforced) +
         "software-enforced:\n" + DescribeSet(characteristics.sw_enforced);
}

std::string DescribeJson(const keymaster_key_characteristics_t& characteristics, size_t indent) {
  return JsonObject({{"hardware_enforced", SetJson(characteristics.hw_enforced, indent + 2)},
                     {"software_enforced", SetJson(characteristics.sw_enforced, indent + 2)}},
                    indent);
}

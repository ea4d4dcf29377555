#include <algorithm>

#include "tools/keymasterctl/names.h"
#include "tools/keymasterctl/params.h"
#include "tools/keymasterctl/report.h"
#include "tools/keymasterctl/session.h"

namespace {

Json ValueJson(const keymaster_key_param_t& param) {
  if (IsBytes(param.tag)) return ToHex(Copy(param.blob));
  if (IsEnumerated(param.tag)) return ValueName(param.tag, param.enumerated);
  if (keymaster_tag_get_type(param.tag) == KM_BOOL) return param.boolean;
  return NumberOf(param);
}

std::string ValueText(const keymaster_key_param_t& param) {
  if (IsBytes(param.tag)) return "0x" + ToHex(Copy(param.blob));
  const bool is_date = keymaster_tag_get_type(param.tag) == KM_DATE;
  return is_date ? DateText(param.date_time) : TextOf(ValueJson(param));
}

}  // namespace

Json SetJson(const keymaster_key_param_set_t& set) {
  Json members = Json::object();
  for (size_t i = 0; i < set.length; ++i) {
    const keymaster_tag_t tag = set.params[i].tag;
    if (IsRepeatable(tag)) {
      members[JsonName(TagName(tag))].push_back(ValueJson(set.params[i]));
    } else {
      members[JsonName(TagName(tag))] = ValueJson(set.params[i]);
    }
  }
  return members;
}

std::string SetText(const keymaster_key_param_set_t& set) {
  std::vector<std::pair<std::string, std::string>> rows;
  for (size_t i = 0; i < set.length; ++i) {
    const std::string name = TagName(set.params[i].tag);
    const auto row = std::find_if(rows.begin(), rows.end(),
                                  [&name](const auto& entry) { return entry.first == name; });
    if (row == rows.end()) {
      rows.emplace_back(name, ValueText(set.params[i]));
    } else {
      row->second += ", " + ValueText(set.params[i]);
    }
  }
  std::string out;
  for (auto& [name, values] : rows) {
    name.resize(std::max<size_t>(name.size() + 1, 28), ' ');
    out += "  " + Paint(stdout, Color::kBold, name) + values + "\n";
  }
  return out.empty() ? "  (nothing)\n" : out;
}

std::string CharacteristicsText(const keymaster_key_characteristics_t& characteristics) {
  return "hardware-enforced:\n" + SetText(characteristics.hw_enforced) + "software-enforced:\n" +
         SetText(characteristics.sw_enforced);
}

Json CharacteristicsJson(const keymaster_key_characteristics_t& characteristics) {
  return {{"hardware_enforced", SetJson(characteristics.hw_enforced)},
          {"software_enforced", SetJson(characteristics.sw_enforced)}};
}

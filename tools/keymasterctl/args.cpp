#include "tools/keymasterctl/args.h"

#include "tools/keymasterctl/names.h"

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
  for (const std::string& text : Texts("app-id")) {
    params->AddText(KM_TAG_APPLICATION_ID, text);
  }
  for (const std::string& text : Texts("app-data")) {
    params->AddText(KM_TAG_APPLICATION_DATA, text);
  }
}

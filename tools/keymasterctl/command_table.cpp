#include "tools/keymasterctl/command_table.h"

#include <algorithm>
#include <map>

#include "tools/keymasterctl/commands.h"
#include "tools/keymasterctl/names.h"
#include "tools/keymasterctl/report.h"

namespace {

using Action = void (*)(const Args& args);

Action ActionOf(const std::string& command) {
  static const std::map<std::string, Action> actions = {
      {"generate", RunGenerate},
      {"import", RunImport},
      {"import-wrapped", RunImportWrapped},
      {"show", RunShow},
      {"characteristics", RunShow},
      {"export", RunExport},
      {"upgrade", RunUpgrade},
      {"delete", RunDelete},
      {"attest", RunAttest},
      {"sign", RunSign},
      {"verify", RunVerify},
      {"encrypt", RunEncrypt},
      {"decrypt", RunDecrypt},
      {"auth-token", RunAuthToken},
      {"verify-authorization", RunVerifyAuthorization},
      {"hmac-sharing", RunHmacSharing},
      {"info", RunInfo},
      {"configure", RunConfigure},
      {"device-locked", RunDeviceLocked},
      {"early-boot-ended", RunEarlyBootEnded},
      {"add-entropy", RunAddEntropy},
      {"delete-all", RunDeleteAll},
      {"destroy-ids", RunDestroyIds},
      {"doctor", RunDoctor},
      {"help", RunHelp},
      {"completion", RunCompletion},
      {"manual", RunManual}};
  return actions.at(command);
}

std::vector<CommandRow> ReadCommands() {
  std::vector<CommandRow> commands;
  for (const Json& group : Texts().at("commands")) {
    for (const Json& row : group.at("rows")) {
      const std::string name = row.at("name");
      commands.push_back({group.at("group"), name, ActionOf(name), row.at("summary"),
                          row.at("examples"), row.value("note", "")});
    }
  }
  return commands;
}

}  // namespace

const std::vector<CommandRow>& Commands() {
  static const std::vector<CommandRow> commands = ReadCommands();
  return commands;
}

std::vector<std::string> CommandNames() {
  std::vector<std::string> names;
  for (const CommandRow& command : Commands()) {
    names.emplace_back(command.name);
  }
  return names;
}

std::vector<OptionRow> OptionsOf(const std::string& command) {
  std::vector<OptionRow> options;
  for (const Json& group : Texts().at("options")) {
    const std::string commands = group.at("commands");
    for (const Json& row : Contains(Split(commands, ' '), command) ? group.at("rows") : Json()) {
      options.push_back({commands, group.at("group"), row[0], row[1], row[2],
                         row.size() > 3 ? TagByName(row[3]) : KM_TAG_INVALID});
    }
  }
  return options;
}

std::vector<std::string> NamesOf(const OptionRow& option) { return Split(option.names, ','); }

std::string NameOf(const OptionRow& option) {
  const std::string name = NamesOf(option).back();
  return name.substr(name.find_first_not_of('-'));
}

bool IsRequired(const OptionRow& option) { return option.value[0] == '!'; }

bool IsPositional(const OptionRow& option) { return option.names[0] != '-'; }

std::string ValueOf(const OptionRow& option) {
  std::string value = option.value.substr(IsRequired(option) ? 1 : 0);
  const keymaster_tag_type_t type = keymaster_tag_get_type(option.tag);
  if (!value.empty() || option.tag == KM_TAG_INVALID || type == KM_BOOL) return value;
  const std::string words = ValueNames(option.tag);
  const std::string kind = IsBytes(option.tag) ? "BYTES" : type == KM_DATE ? "DATE" : "N";
  // A new key has several, a use of it has one.
  const bool several = IsRepeatable(option.tag) && option.commands == "generate import";
  return (words.empty() ? kind : words) + (several ? ",..." : "");
}

std::vector<std::string> WordsOf(const OptionRow& option) {
  std::string value = ValueOf(option);
  value.resize(std::min(value.find(','), value.size()));
  return value.find('|') != std::string::npos || value == "bash" ? Split(value, '|')
                                                                 : std::vector<std::string>();
}

std::string TypedExamples(const CommandRow& command, const std::string& before) {
  std::string out;
  for (const std::string& line : command.examples) {
    out += before + "keymasterctl " + line + "\n";
  }
  return out;
}

NamedTexts TextsOf(const char* table) { return Texts().at(table); }

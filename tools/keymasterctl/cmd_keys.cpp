// generate, export, characteristics, upgrade, delete

#include <unistd.h>

#include "commands.h"
#include "describe.h"
#include "errors.h"
#include "key_options.h"
#include "pem.h"

namespace {

void RunGenerate(const NewKeyArgs& args) {
  ParamList params;
  FillNewKeyParams(args, &params);
  Session session;
  OwnedKeyBlob blob;
  Check("generate", session->TivasKmGenerateKey(params.set(), &blob, nullptr));
  WriteKey(args.path, blob);
}

struct ExportArgs {
  KeyArgs key;
  std::string out = "-";
  bool der = false;
};

void RunExport(const ExportArgs& args) {
  const Key key(args.key);
  Session session;
  OwnedBlob spki;
  Check("export", session->TivasKmExportKey(KM_KEY_FORMAT_X509, key.blob(), key.app_id(),
                                            key.app_data(), &spki));
  WriteFile(args.out, args.der ? Copy(spki) : ToPem("PUBLIC KEY", spki));
}

struct CharacteristicsArgs {
  KeyArgs key;
  bool json = false;
};

void RunCharacteristics(const CharacteristicsArgs& args) {
  const Key key(args.key);
  Session session;
  OwnedCharacteristics characteristics;
  Check("reading the key", session->TivasKmGetKeyCharacteristics(key.blob(), key.app_id(),
                                                                 key.app_data(), &characteristics));
  const std::string text =
      args.json ? DescribeJson(characteristics) : DescribeText(characteristics);
  fputs(text.c_str(), stdout);
}

struct UpgradeArgs {
  KeyArgs key;
  std::string out;
};

void RunUpgrade(const UpgradeArgs& args) {
  const Key key(args.key);
  ParamList params;
  AddBinding(args.key.binding, &params);
  Session session;
  OwnedKeyBlob upgraded;
  Check("upgrade", session->TivasKmUpgradeKey(key.blob(), params.set(), &upgraded));
  if (upgraded.key_material == nullptr) {
    printf("%s needs no upgrade\n", args.key.path.c_str());
    return;
  }
  WriteKey(args.out.empty() ? args.key.path : args.out, upgraded);
}

struct DeleteArgs {
  KeyArgs key;
  bool keep_file = false;
};

void RunDelete(const DeleteArgs& args) {
  const Key key(args.key);
  Session session;
  Check("delete", session->TivasKmDeletekey(key.blob()));
  if (!args.keep_file && unlink(args.key.path.c_str()) != 0) {
    throw SystemFailure("cannot remove", args.key.path);
  }
  printf("deleted %s\n", args.key.path.c_str());
}

}  // namespace

void AddKeyCommands(CommandLine* line) {
  {
    const auto [command, args] = line->AddCommand<NewKeyArgs>("generate", RunGenerate);
    AddNewKeyOptions(command, args).Required();
  }
  {
    const auto [command, args] = line->AddCommand<ExportArgs>("export", RunExport);
    AddKeyOptions(command, &args->key);
    command.Add("-o,--out", &args->out, "Public key file, - for standard output (default)");
    command.AddFlag("--der,!--pem", &args->der, "DER instead of PEM");
  }
  {
    const auto [command, args] =
        line->AddCommand<CharacteristicsArgs>("characteristics", RunCharacteristics);
    AddKeyOptions(command, &args->key);
    command.AddFlag("--json", &args->json, "As JSON");
  }
  {
    const auto [command, args] = line->AddCommand<UpgradeArgs>("upgrade", RunUpgrade);
    AddKeyOptions(command, &args->key);
    command.Add("-o,--out", &args->out, "New key file (default: in place of the old one)");
  }
  {
    const auto [command, args] = line->AddCommand<DeleteArgs>("delete", RunDelete);
    command.Add("-k,--key", &args->key.path, "Key file").Required();
    command.AddFlag("--keep-file", &args->keep_file, "Leave the file");
  }
}

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

void AddKeyCommands(const Registry& registry) {
  {
    const auto [command, args] = AddCommand<NewKeyArgs>(
        registry, "generate", "Make a key", "generate --algorithm ec --key k.blob", RunGenerate);
    AddNewKeyOptions(command, args);
    command->get_option("--algorithm")->required();
  }
  {
    const auto [command, args] =
        AddCommand<ExportArgs>(registry, "export", "Write the public key of an RSA or EC key",
                               "export --key k.blob --out k.pem", RunExport);
    AddKeyOptions(command, &args->key);
    command->add_option("-o,--out", args->out, "Public key file, - for standard output (default)");
    command->add_flag("--der,!--pem", args->der, "DER instead of PEM");
  }
  {
    const auto [command, args] = AddCommand<CharacteristicsArgs>(
        registry, "characteristics", "Show what is enforced for a key",
        "characteristics --key k.blob", RunCharacteristics);
    AddKeyOptions(command, &args->key);
    command->add_flag("--json", args->json, "As JSON");
  }
  {
    const auto [command, args] = AddCommand<UpgradeArgs>(
        registry, "upgrade", "Renew a key file for the present system version",
        "upgrade --key k.blob", RunUpgrade);
    AddKeyOptions(command, &args->key);
    command->add_option("-o,--out", args->out, "New key file (default: in place of the old one)");
  }
  {
    const auto [command, args] =
        AddCommand<DeleteArgs>(registry, "delete", "Delete a key in the TA, and its file",
                               "delete --key k.blob", RunDelete);
    command->add_option("-k,--key", args->key.path, "Key file")->required();
    command->add_flag("--keep-file", args->keep_file, "Leave the file");
  }
}

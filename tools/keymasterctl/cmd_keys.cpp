// generate, export, characteristics, upgrade, delete

#include <unistd.h>

#include "commands.h"
#include "describe.h"
#include "errors.h"
#include "key_options.h"
#include "pem.h"
#include "report.h"
#include "terminal.h"

namespace {

void RunGenerate(const NewKeyArgs& args) {
  NeedFileForJson(args.path);
  ParamList params;
  FillNewKeyParams(args, &params);
  Session session;
  OwnedKeyBlob blob;
  const std::unique_ptr<OwnedCharacteristics> characteristics = CharacteristicsToTell();
  Check("generate", session->TivasKmGenerateKey(params.set(), &blob, characteristics.get()));
  WriteKey(args.path, blob, characteristics.get());
}

struct ExportArgs {
  KeyArgs key;
  std::string out = "-";
  bool der = false;
};

void RunExport(const ExportArgs& args) {
  NeedFileForJson(args.out);
  const Key key(args.key);
  Session session;
  OwnedBlob spki;
  Check("export",
        session->TivasKmExportKey(KM_KEY_FORMAT_X509, key.blob(), key.app_id(), key.app_data(),
                                  &spki),
        args.key.path);
  const Bytes file = args.der ? Copy(spki) : ToPem("PUBLIC KEY", spki);
  WriteFile(args.out, file);
  TellWritten("public key", args.out, file.size());
}

void RunCharacteristics(const KeyArgs& args) {
  const Key key(args);
  Session session;
  OwnedCharacteristics characteristics;
  Check("reading the key",
        session->TivasKmGetKeyCharacteristics(key.blob(), key.app_id(), key.app_data(),
                                              &characteristics),
        args.path);
  const std::string text =
      Style().json ? DescribeJson(characteristics) + "\n" : DescribeText(characteristics);
  fputs(text.c_str(), stdout);
}

struct UpgradeArgs {
  KeyArgs key;
  std::string out;
};

void RunUpgrade(const UpgradeArgs& args) {
  const std::string& path = args.out.empty() ? args.key.path : args.out;
  NeedFileForJson(path);
  const Key key(args.key);
  ParamList params;
  key.binding().AddTo(&params);
  Session session;
  OwnedKeyBlob upgraded;
  Check("upgrade", session->TivasKmUpgradeKey(key.blob(), params.set(), &upgraded), args.key.path);
  if (upgraded.key_material == nullptr) {
    Report()
        .Say(args.key.path + " needs no upgrade")
        .Text("key", args.key.path)
        .Member("upgraded", "false")
        .Print();
    return;
  }
  WriteKey(path, upgraded, nullptr);
}

struct DeleteArgs {
  KeyArgs key;
  bool keep_file = false;
};

void RunDelete(const DeleteArgs& args) {
  if (args.key.path == "-" && !args.keep_file) {
    throw UsageFailure("name the key's file, which is removed, or give --keep-file");
  }
  const Key key(args.key);
  Session session;
  Check("delete", session->TivasKmDeletekey(key.blob()), args.key.path);
  if (!args.keep_file && unlink(args.key.path.c_str()) != 0) {
    throw SystemFailure("cannot remove", args.key.path);
  }
  Report().Say("deleted " + args.key.path).Text("deleted", args.key.path).Print();
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
    command.Add("-o,--out", &args->out, "Public key file, - for standard output (default)")
        .Takes("FILE");
    command.AddFlag("--der,!--pem", &args->der, "DER instead of PEM");
  }
  {
    const auto [command, args] = line->AddCommand<KeyArgs>("characteristics", RunCharacteristics);
    AddKeyOptions(command, args);
  }
  {
    const auto [command, args] = line->AddCommand<UpgradeArgs>("upgrade", RunUpgrade);
    AddKeyOptions(command, &args->key);
    command.Add("-o,--out", &args->out, "New key file (default: in place of the old one)")
        .Takes("FILE");
  }
  {
    const auto [command, args] = line->AddCommand<DeleteArgs>("delete", RunDelete);
    command.Add("-k,--key", &args->key.path, "Key file").Takes("FILE").Required();
    command.AddFlag("--keep-file", &args->keep_file, "Leave the file");
  }
}

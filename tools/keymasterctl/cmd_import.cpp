// import, import-wrapped

#include <openssl/crypto.h>

#include "commands.h"
#include "errors.h"
#include "key_options.h"
#include "names.h"
#include "pem.h"
#include "report.h"

namespace {

struct ImportArgs {
  NewKeyArgs key;
  std::string in = "-";
  bool raw = false;
};

// Wiped wipes secret bytes when it goes.
struct Wiped {
  Bytes bytes;
  explicit Wiped(Bytes content) : bytes(std::move(content)) {}
  ~Wiped() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
  Wiped(const Wiped&) = delete;
  Wiped& operator=(const Wiped&) = delete;
};

void Import(const NewKeyArgs& args, keymaster_key_format_t format, const Bytes& material) {
  ParamList params;
  FillNewKeyParams(args, &params);
  const keymaster_blob_t data = View(material);
  Session session;
  OwnedKeyBlob blob;
  const std::unique_ptr<OwnedCharacteristics> characteristics = CharacteristicsToTell();
  Check("import",
        session->TivasKmImportKey(params.set(), format, &data, &blob, characteristics.get()));
  WriteKey(args.path, blob, characteristics.get());
}

void ImportRaw(NewKeyArgs args, const Bytes& material) {
  if (!args.algorithm) args.algorithm = KM_ALGORITHM_AES;
  if (!args.size) {
    // Of the 192 bits of a triple DES key 168 count.
    const size_t bits = *args.algorithm == KM_ALGORITHM_TRIPLE_DES ? 7 : 8;
    args.size = static_cast<uint32_t>(material.size() * bits);
  }
  Import(args, KM_KEY_FORMAT_RAW, material);
}

void ImportPrivate(NewKeyArgs args, const Bytes& file) {
  PrivateKey key = ReadPrivateKey(file);
  const Wiped pkcs8(std::move(key.pkcs8));
  if (args.algorithm && *args.algorithm != key.algorithm) {
    throw UsageFailure("the input is a key for " + ValueName(KM_TAG_ALGORITHM, key.algorithm));
  }
  args.algorithm = key.algorithm;
  if (!args.size) args.size = key.size;
  if (!args.exponent) args.exponent = key.exponent;
  Import(args, KM_KEY_FORMAT_PKCS8, pkcs8.bytes);
}

void RunImport(const ImportArgs& args) {
  NeedFileForJson(args.key.path);
  const Wiped file(ReadFile(args.in));
  if (args.raw) {
    ImportRaw(args.key, file.bytes);
  } else {
    ImportPrivate(args.key, file.bytes);
  }
}

struct WrappedArgs {
  std::string path;
  std::string wrapped;
  std::string wrapping_key;
  std::string mask = std::string(64, '0');
  std::optional<uint32_t> digest;
  uint64_t password_sid = 0;
  uint64_t biometric_sid = 0;
};

// With a digest of the user's own the library's defaults, which say SHA-1, do not apply.
void AddUnwrappingParams(uint32_t digest, ParamList* params) {
  params->Add(KM_TAG_DIGEST, digest);
  params->Add(KM_TAG_PADDING, KM_PAD_RSA_OAEP);
  params->Add(KM_TAG_PURPOSE, KM_PURPOSE_WRAP_KEY);
}

void RunImportWrapped(const WrappedArgs& args) {
  NeedFileForJson(args.path);
  const Bytes wrapped = ReadFile(args.wrapped);
  const Bytes wrapping = ReadFile(args.wrapping_key);
  const std::optional<Bytes> mask_digits = ParseHex(args.mask);
  const Wiped mask(mask_digits ? *mask_digits : ReadFile(args.mask));
  const keymaster_key_blob_t wrapped_view = KeyView(wrapped);
  const keymaster_key_blob_t wrapping_view = KeyView(wrapping);
  const keymaster_key_blob_t mask_view = KeyView(mask.bytes);
  ParamList params;
  if (args.digest) AddUnwrappingParams(*args.digest, &params);
  Session session;
  OwnedKeyBlob blob;
  const std::unique_ptr<OwnedCharacteristics> characteristics = CharacteristicsToTell();
  Check("import of the wrapped key",
        session->TivasKmImportWrappedKeyNew(&wrapped_view, &wrapping_view, &mask_view, params.set(),
                                            args.password_sid, args.biometric_sid, &blob,
                                            characteristics.get()),
        args.wrapping_key);
  WriteKey(args.path, blob, characteristics.get());
}

}  // namespace

void AddImportCommands(CommandLine* line) {
  {
    const auto [command, args] = line->AddCommand<ImportArgs>("import", RunImport);
    AddNewKeyOptions(command, &args->key);
    command.Add("-i,--in", &args->in, "Key to import, - for standard input (default)")
        .Takes("FILE");
    command.AddFlag("--raw", &args->raw,
                    "The input is the bytes of a symmetric key (default algorithm aes)");
  }
  {
    const auto [command, args] = line->AddCommand<WrappedArgs>("import-wrapped", RunImportWrapped);
    command.Add("-k,--key", &args->path, "Key file to write").Takes("FILE").Required();
    command.Add("--wrapped", &args->wrapped, "Wrapped key (DER)").Takes("FILE").Required();
    command
        .Add("--wrapping-key", &args->wrapping_key,
             "Key file of the wrapping key, an RSA key with purpose wrap-key")
        .Takes("FILE")
        .Required();
    command
        .Add("--mask,--masking-key", &args->mask,
             "Masking key: hexadecimal, or a file (default: 32 zero bytes)")
        .Takes("FILE");
    command.Add("--digest", &args->digest, "Digest of OAEP (default sha1)")
        .TakesNames(KM_TAG_DIGEST);
    command.Add("--password-sid", &args->password_sid,
                "Secure id of the user's password, for a key bound to it");
    command.Add("--biometric-sid", &args->biometric_sid,
                "Secure id of the user's fingerprint, likewise");
  }
}

#include "key_options.h"

#include <time.h>

#include <algorithm>

#include "describe.h"
#include "errors.h"
#include "names.h"
#include "report.h"
#include "terminal.h"

namespace {

constexpr uint64_t kDefaultExponent = 65537;
constexpr uint32_t kDefaultMinMac = 128;

bool Has(const std::vector<uint32_t>& values, uint32_t value) {
  return std::find(values.begin(), values.end(), value) != values.end();
}

template <typename T>
void SetDefault(std::optional<T>* option, T value) {
  if (!*option) *option = value;
}

void SetDefault(std::vector<uint32_t>* option, std::vector<uint32_t> values) {
  if (option->empty()) *option = std::move(values);
}

bool Encrypts(const NewKeyArgs& args) {
  return Has(args.purposes, KM_PURPOSE_ENCRYPT) || Has(args.purposes, KM_PURPOSE_DECRYPT);
}

bool Signs(const NewKeyArgs& args) {
  return Has(args.purposes, KM_PURPOSE_SIGN) || Has(args.purposes, KM_PURPOSE_VERIFY);
}

void SetRsaDefaults(NewKeyArgs* args) {
  SetDefault(&args->size, 2048u);
  SetDefault(&args->exponent, kDefaultExponent);
  SetDefault(&args->purposes, {KM_PURPOSE_SIGN, KM_PURPOSE_VERIFY});
  const bool wraps = Has(args->purposes, KM_PURPOSE_WRAP_KEY);
  std::vector<uint32_t> paddings;
  if (Signs(*args)) paddings = {KM_PAD_RSA_PKCS1_1_5_SIGN, KM_PAD_RSA_PSS};
  if (Encrypts(*args) || wraps) paddings.push_back(KM_PAD_RSA_OAEP);
  if (Encrypts(*args)) paddings.push_back(KM_PAD_RSA_PKCS1_1_5_ENCRYPT);
  SetDefault(&args->paddings, paddings);
  // A secure import without parameters of its own unwraps with SHA-1.
  if (wraps) SetDefault(&args->digests, {KM_DIGEST_SHA_2_256, KM_DIGEST_SHA1});
  SetDefault(&args->digests, {KM_DIGEST_SHA_2_256});
}

void SetEcDefaults(NewKeyArgs* args) {
  constexpr uint32_t kSizes[] = {224, 256, 384, 521};  // by keymaster_ec_curve_t
  if (!args->curve && args->size) {
    const auto* size = std::find(std::begin(kSizes), std::end(kSizes), *args->size);
    if (size == std::end(kSizes)) throw UsageFailure("an EC key has 224, 256, 384 or 521 bits");
    args->curve = static_cast<uint32_t>(size - std::begin(kSizes));
  }
  SetDefault(&args->curve, static_cast<uint32_t>(KM_EC_CURVE_P_256));
  if (*args->curve < std::size(kSizes)) SetDefault(&args->size, kSizes[*args->curve]);
  SetDefault(&args->purposes, {KM_PURPOSE_SIGN, KM_PURPOSE_VERIFY});
  SetDefault(&args->digests, {KM_DIGEST_SHA_2_256});
}

void SetCipherDefaults(NewKeyArgs* args) {
  const bool aes = *args->algorithm == KM_ALGORITHM_AES;
  SetDefault(&args->size, aes ? 256u : 168u);
  SetDefault(&args->purposes, {KM_PURPOSE_ENCRYPT, KM_PURPOSE_DECRYPT});
  SetDefault(&args->modes, {aes ? KM_MODE_GCM : KM_MODE_CBC});
  std::vector<uint32_t> paddings;
  if (Has(args->modes, KM_MODE_GCM) || Has(args->modes, KM_MODE_CTR)) paddings = {KM_PAD_NONE};
  if (Has(args->modes, KM_MODE_CBC) || Has(args->modes, KM_MODE_ECB)) {
    paddings.push_back(KM_PAD_PKCS7);
  }
  SetDefault(&args->paddings, paddings);
  if (Has(args->modes, KM_MODE_GCM)) SetDefault(&args->min_mac, kDefaultMinMac);
}

void SetHmacDefaults(NewKeyArgs* args) {
  SetDefault(&args->size, 256u);
  SetDefault(&args->purposes, {KM_PURPOSE_SIGN, KM_PURPOSE_VERIFY});
  SetDefault(&args->digests, {KM_DIGEST_SHA_2_256});
  SetDefault(&args->min_mac, kDefaultMinMac);
}

void SetDefaults(NewKeyArgs* args) {
  switch (args->algorithm.value_or(0)) {
    case KM_ALGORITHM_RSA:
      return SetRsaDefaults(args);
    case KM_ALGORITHM_EC:
      return SetEcDefaults(args);
    case KM_ALGORITHM_HMAC:
      return SetHmacDefaults(args);
    case KM_ALGORITHM_AES:
    case KM_ALGORITHM_TRIPLE_DES:
      return SetCipherDefaults(args);
    default:
      throw UsageFailure("say the key's --algorithm: " + ValueNames(KM_TAG_ALGORITHM));
  }
}

// Replaces "pkcs1" by the paddings that the key's purposes give it.
void ResolvePkcs1(NewKeyArgs* args) {
  std::vector<uint32_t> paddings;
  for (uint32_t padding : args->paddings) {
    if (padding != kPadPkcs1ByUse) {
      paddings.push_back(padding);
      continue;
    }
    if (Signs(*args)) paddings.push_back(KM_PAD_RSA_PKCS1_1_5_SIGN);
    if (Encrypts(*args)) paddings.push_back(KM_PAD_RSA_PKCS1_1_5_ENCRYPT);
  }
  args->paddings = paddings;
}

void AddAll(keymaster_tag_t tag, const std::vector<uint32_t>& values, ParamList* params) {
  for (uint32_t value : values) params->Add(tag, value);
}

template <typename T>
void AddGiven(keymaster_tag_t tag, const std::optional<T>& value, ParamList* params) {
  if (value) params->Add(tag, *value);
}

void AddGivenDate(keymaster_tag_t tag, const std::optional<std::string>& text, ParamList* params) {
  if (text) params->Add(tag, ParseDate(*text));
}

// Comes behind all else: a key is for anybody unless a user is named, in whatever way.
void AddAuthentication(const NewKeyArgs& args, ParamList* params) {
  for (uint64_t sid : args.auth_sids) params->Add(KM_TAG_USER_SECURE_ID, sid);
  if (!args.auth_sids.empty()) {
    params->Add(KM_TAG_USER_AUTH_TYPE,
                args.auth_type.value_or(HW_AUTH_PASSWORD | HW_AUTH_FINGERPRINT));
    AddGiven(KM_TAG_AUTH_TIMEOUT, args.auth_timeout, params);
  }
  const bool wanted = args.no_auth || !params->Contains(KM_TAG_USER_SECURE_ID);
  if (!wanted || params->Contains(KM_TAG_NO_AUTH_REQUIRED)) return;
  for (const std::string& text : args.extra) {
    if (TagByName(text.substr(0, text.find('='))) == KM_TAG_NO_AUTH_REQUIRED) {
      throw UsageFailure("a key that is not for anybody needs --auth-sid");
    }
  }
  params->AddFlag(KM_TAG_NO_AUTH_REQUIRED);
}

void AddAccessOptions(const Command& command, NewKeyArgs* args) {
  const Option sid =
      command.Add("--auth-sid", &args->auth_sids, "The key needs a user with this secure id");
  command.Add("--auth-type", &args->auth_type, "How that user authenticates")
      .Needs(sid)
      .TakesNames(KM_TAG_USER_AUTH_TYPE);
  command
      .Add("--auth-timeout", &args->auth_timeout,
           "Seconds that an authentication lasts (default: each operation needs its own)")
      .Needs(sid);
  command.AddFlag("--no-auth", &args->no_auth, "The key needs no user (default)").Excludes(sid);
  command.AddFlag("--unlocked-device", &args->unlocked_device, "Only on an unlocked device");
  command.AddFlag("--early-boot", &args->early_boot, "Only during early boot");
  command.AddFlag("--rollback-resistant", &args->rollback_resistant,
                  "A deleted key stays deleted, also from a saved copy");
  command
      .Add("--valid-from", &args->valid_from,
           "Not before YYYY-MM-DD[Thh:mm:ss], UTC; for all dates")
      .Takes("DATE");
  command.Add("--valid-until", &args->valid_until, "No new signature or encryption after this date")
      .Takes("DATE");
  command.Add("--use-until", &args->use_until, "No verification or decryption after this date")
      .Takes("DATE");
  command.Add("--max-uses", &args->max_uses, "Uses per boot");
  command.Add("--min-seconds", &args->min_seconds, "Seconds between uses");
}

}  // namespace

void AddBindingOptions(const Command& command, BindingArgs* args) {
  command
      .Add("--app-id", &args->app_id,
           "Application id of the key: text, 0x and hexadecimal, or @FILE")
      .Takes("BYTES");
  command.Add("--app-data", &args->app_data, "Application data of the key, likewise")
      .Takes("BYTES");
}

void AddKeyOptions(const Command& command, KeyArgs* args) {
  command.Add("-k,--key", &args->path, "Key file").Takes("FILE").Required();
  AddBindingOptions(command, &args->binding);
}

Binding::Binding(const BindingArgs& args) {
  if (args.app_id) app_id = ParseBytes(*args.app_id);
  if (args.app_data) app_data = ParseBytes(*args.app_data);
}

void Binding::AddTo(ParamList* params) const {
  if (app_id) params->Add(KM_TAG_APPLICATION_ID, *app_id);
  if (app_data) params->Add(KM_TAG_APPLICATION_DATA, *app_data);
}

Key::Key(const KeyArgs& args)
    : path_(args.path), material_(ReadFile(args.path)), binding_(args.binding) {
  if (material_.empty()) throw Failure(args.path + " is empty: no key file");
  blob_ = KeyView(material_);
  if (binding_.app_id) app_id_view_ = View(*binding_.app_id);
  if (binding_.app_data) app_data_view_ = View(*binding_.app_data);
}

Option AddNewKeyOptions(const Command& command, NewKeyArgs* args) {
  const auto add_names = [command](const char* name, std::vector<uint32_t>* values,
                                   keymaster_tag_t tag, const char* what) {
    command.Add(name, values, what).TakesList().TakesNames(tag);
  };
  command.Add("-k,--key", &args->path, "Key file to write").Takes("FILE").Required();
  const Option algorithm =
      command.Add("-a,--algorithm", &args->algorithm, "Algorithm").TakesNames(KM_TAG_ALGORITHM);
  command.Add("-s,--size", &args->size, "Key size in bits");
  command.Add("--curve", &args->curve, "Curve of an EC key (default p256)")
      .TakesNames(KM_TAG_EC_CURVE);
  add_names("--purpose", &args->purposes, KM_TAG_PURPOSE, "Uses (default: the algorithm's pair)");
  add_names("--digest", &args->digests, KM_TAG_DIGEST, "Digests (default sha256)");
  add_names("--padding", &args->paddings, KM_TAG_PADDING, "Paddings (default: by the uses)");
  add_names("--mode", &args->modes, KM_TAG_BLOCK_MODE, "Block modes (default gcm; 3des: cbc)");
  command.Add("--exponent", &args->exponent, "Public exponent of RSA (default 65537)");
  command.Add("--min-mac", &args->min_mac, "Smallest tag or MAC, in bits (default 128)");
  command.AddFlag("--caller-nonce", &args->caller_nonce, "The caller may choose the nonce");
  AddBindingOptions(command, &args->binding);
  AddAccessOptions(command, args);
  command
      .Add("--param", &args->extra,
           "Any other parameter as NAME=VALUE, named as characteristics shows it")
      .Takes("NAME=VALUE");
  return algorithm;
}

void FillNewKeyParams(NewKeyArgs args, ParamList* params) {
  SetDefaults(&args);
  ResolvePkcs1(&args);
  params->Add(KM_TAG_ALGORITHM, *args.algorithm);
  AddGiven(KM_TAG_KEY_SIZE, args.size, params);
  AddGiven(KM_TAG_EC_CURVE, args.curve, params);
  AddGiven(KM_TAG_RSA_PUBLIC_EXPONENT, args.exponent, params);
  AddAll(KM_TAG_PURPOSE, args.purposes, params);
  AddAll(KM_TAG_DIGEST, args.digests, params);
  AddAll(KM_TAG_PADDING, args.paddings, params);
  AddAll(KM_TAG_BLOCK_MODE, args.modes, params);
  AddGiven(KM_TAG_MIN_MAC_LENGTH, args.min_mac, params);
  Binding(args.binding).AddTo(params);
  if (args.caller_nonce) params->AddFlag(KM_TAG_CALLER_NONCE);
  if (args.unlocked_device) params->AddFlag(KM_TAG_UNLOCKED_DEVICE_REQUIRED);
  if (args.early_boot) params->AddFlag(KM_TAG_EARLY_BOOT_ONLY);
  if (args.rollback_resistant) params->AddFlag(KM_TAG_ROLLBACK_RESISTANCE);
  AddGivenDate(KM_TAG_ACTIVE_DATETIME, args.valid_from, params);
  AddGivenDate(KM_TAG_ORIGINATION_EXPIRE_DATETIME, args.valid_until, params);
  AddGivenDate(KM_TAG_USAGE_EXPIRE_DATETIME, args.use_until, params);
  AddGiven(KM_TAG_MAX_USES_PER_BOOT, args.max_uses, params);
  AddGiven(KM_TAG_MIN_SECONDS_BETWEEN_OPS, args.min_seconds, params);
  for (const std::string& text : args.extra) params->AddText(text);
  AddAuthentication(args, params);
  if (!params->Contains(KM_TAG_CREATION_DATETIME)) {
    params->Add(KM_TAG_CREATION_DATETIME, static_cast<uint64_t>(time(nullptr)) * 1000);
  }
}

std::unique_ptr<OwnedCharacteristics> CharacteristicsToTell() {
  return Style().json ? std::make_unique<OwnedCharacteristics>() : nullptr;
}

void WriteKey(const std::string& path, const keymaster_key_blob_t& blob,
              const keymaster_key_characteristics_t* characteristics) {
  WriteFile(path, Copy(blob), Output::Access::kOwnerOnly);
  if (path == "-") return;
  const std::string size = std::to_string(blob.key_material_size);
  Report report;
  report.Say("wrote " + path + " (" + size + " bytes)").Text("key", path).Member("bytes", size);
  if (characteristics != nullptr) {
    report.Member("characteristics", DescribeJson(*characteristics, 2));
  }
  report.Print();
}

#include "tools/keymasterctl/key.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <time.h>

#include <algorithm>
#include <map>
#include <memory>

#include "tools/keymasterctl/command_table.h"
#include "tools/keymasterctl/errors.h"
#include "tools/keymasterctl/names.h"
#include "tools/keymasterctl/report.h"
#include "tools/keymasterctl/state.h"

namespace {

constexpr uint32_t kCurveSizes[] = {224, 256, 384, 521};  // by keymaster_ec_curve_t

// What keys for an algorithm can have, with all values where none is named, and what they have by
// default. A tag that stands for one algorithm means nothing for those that it does not stand for.
constexpr struct AlgorithmRow {
  uint32_t algorithm;
  const char* fits;
  const char* defaults;
} kAlgorithms[] = {
    {KM_ALGORITHM_RSA,
     "purpose=encrypt,decrypt,sign,verify,wrap-key key-size=1024,2048,3072,4096 digest "
     "padding=none,oaep,pss,pkcs1-encrypt,pkcs1-sign,pkcs1 rsa-public-exponent",
     "purpose=sign,verify key-size=2048 rsa-public-exponent=65537"},
    {KM_ALGORITHM_EC, "purpose=sign,verify key-size=224,256,384,521 digest ec-curve",
     "purpose=sign,verify digest=sha256"},
    {KM_ALGORITHM_AES,
     "purpose=encrypt,decrypt key-size=128,192,256 padding=none,pkcs7 block-mode min-mac-length "
     "caller-nonce",
     "purpose=encrypt,decrypt key-size=256 block-mode=gcm"},
    {KM_ALGORITHM_TRIPLE_DES,
     "purpose=encrypt,decrypt key-size=168 padding=none,pkcs7 block-mode=ecb,cbc caller-nonce",
     "purpose=encrypt,decrypt key-size=168 block-mode=cbc"},
    {KM_ALGORITHM_HMAC, "purpose=sign,verify key-size digest min-mac-length",
     "purpose=sign,verify key-size=256 digest=sha256 min-mac-length=128"},
};

using Fits = std::map<keymaster_tag_t, std::vector<std::string>>;

Fits Parsed(const char* text) {
  Fits fits;
  for (const std::string& part : Split(text, ' ')) {
    const size_t equals = std::min(part.find('='), part.size());
    fits[TagByName(part.substr(0, equals))] = Split(part.substr(equals).erase(0, 1), ',');
  }
  return fits;
}

void RequireFit(const Fits& fits, uint32_t algorithm, keymaster_tag_t tag, uint32_t value) {
  const std::string subject = "a key for " + ValueName(KM_TAG_ALGORITHM, algorithm);
  const auto fit = fits.find(tag);
  if (fit == fits.end()) {
    throw UsageFailure(subject + " has no " + TagName(tag), "leave that option out");
  }
  const std::vector<std::string>& names = fit->second;
  const std::string name = ValueName(tag, value);
  RequireUsage(names.empty() || Contains(names, name), subject + " cannot have " + TagName(tag) +
                                                           " " + name + "; it can have " +
                                                           Joined(names, ", "));
}

void RequireFits(uint32_t algorithm, const ParamList& given) {
  Fits own;
  Fits all;
  for (const AlgorithmRow& row : kAlgorithms) {
    all.merge(Parsed(row.fits));
    if (row.algorithm == algorithm) own = Parsed(row.fits);
  }
  for (const auto& [tag, ignored] : all) {
    for (uint32_t value : given.Values(tag)) {
      RequireFit(own, algorithm, tag, value);
    }
  }
  const std::vector<uint32_t> curves = given.Values(KM_TAG_EC_CURVE);
  for (uint32_t size : given.Values(KM_TAG_KEY_SIZE)) {
    RequireUsage(
        curves.empty() || curves[0] >= std::size(kCurveSizes) || kCurveSizes[curves[0]] == size,
        "the curve and a size of " + std::to_string(size) + " bits do not go together");
    RequireUsage(algorithm != KM_ALGORITHM_HMAC || (size % 8 == 0 && size >= 64 && size <= 512),
                 "a key for hmac has 64 to 512 bits, in whole bytes");
  }
}

bool Encrypts(const ParamList& params) {
  return params.Contains(KM_TAG_PURPOSE, KM_PURPOSE_ENCRYPT) ||
         params.Contains(KM_TAG_PURPOSE, KM_PURPOSE_DECRYPT);
}

bool Signs(const ParamList& params) {
  return params.Contains(KM_TAG_PURPOSE, KM_PURPOSE_SIGN) ||
         params.Contains(KM_TAG_PURPOSE, KM_PURPOSE_VERIFY);
}

void AddRsaDefaults(ParamList* params) {
  const bool wraps = params->Contains(KM_TAG_PURPOSE, KM_PURPOSE_WRAP_KEY);
  std::vector<std::string> paddings;
  if (Signs(*params)) paddings = {"pkcs1-sign", "pss"};
  if (Encrypts(*params) || wraps) paddings.emplace_back("oaep");
  if (Encrypts(*params)) paddings.emplace_back("pkcs1-encrypt");
  params->Default(KM_TAG_PADDING, paddings);
  // A secure import without parameters of its own unwraps with SHA-1.
  params->Default(KM_TAG_DIGEST, Split(wraps ? "sha256,sha1" : "sha256", ','));
}

// The curve follows from the size, or the size from the curve.
void AddEcDefaults(ParamList* params) {
  const std::vector<uint32_t> sizes = params->Values(KM_TAG_KEY_SIZE);
  if (!sizes.empty()) params->Default(KM_TAG_EC_CURVE, {"p" + std::to_string(sizes[0])});
  params->Default(KM_TAG_EC_CURVE, {"p256"});
  const uint32_t curve = params->Values(KM_TAG_EC_CURVE)[0];
  if (curve < std::size(kCurveSizes)) {
    params->Default(KM_TAG_KEY_SIZE, {std::to_string(kCurveSizes[curve])});
  }
}

void AddCipherDefaults(ParamList* params) {
  const auto has_mode = [params](uint32_t mode) {
    return params->Contains(KM_TAG_BLOCK_MODE, mode);
  };
  std::vector<std::string> paddings;
  if (has_mode(KM_MODE_GCM) || has_mode(KM_MODE_CTR)) paddings.emplace_back("none");
  if (has_mode(KM_MODE_CBC) || has_mode(KM_MODE_ECB)) paddings.emplace_back("pkcs7");
  params->Default(KM_TAG_PADDING, paddings);
  if (has_mode(KM_MODE_GCM)) params->Default(KM_TAG_MIN_MAC_LENGTH, {"128"});
}

void AddDefaults(uint32_t algorithm, ParamList* params) {
  if (algorithm == KM_ALGORITHM_EC) AddEcDefaults(params);
  for (const AlgorithmRow& row : kAlgorithms) {
    for (const auto& [tag, texts] : row.algorithm == algorithm ? Parsed(row.defaults) : Fits()) {
      params->Default(tag, texts);
    }
  }
  if (algorithm == KM_ALGORITHM_RSA) {
    AddRsaDefaults(params);
  } else if (algorithm == KM_ALGORITHM_AES || algorithm == KM_ALGORITHM_TRIPLE_DES) {
    AddCipherDefaults(params);
  }
}

// Replaces "pkcs1" by the paddings that the key's purposes give it.
void ResolvePkcs1(ParamList* params) {
  for (uint32_t padding : params->Take(KM_TAG_PADDING)) {
    const bool both = padding == kPadPkcs1ByUse;
    if (!both) params->Add(KM_TAG_PADDING, padding);
    if (both && Signs(*params)) params->Add(KM_TAG_PADDING, KM_PAD_RSA_PKCS1_1_5_SIGN);
    if (both && Encrypts(*params)) params->Add(KM_TAG_PADDING, KM_PAD_RSA_PKCS1_1_5_ENCRYPT);
  }
}

// A key is for anybody unless a user is named, in whatever way.
void AddAuthentication(const Args& args, ParamList* params) {
  const bool has_user = params->Contains(KM_TAG_USER_SECURE_ID);
  if (has_user) params->Default(KM_TAG_USER_AUTH_TYPE, {"password-or-fingerprint"});
  for (const std::string& text : args.Texts("param")) {
    const bool names_it = TagByName(Split(text, '=')[0]) == KM_TAG_NO_AUTH_REQUIRED;
    RequireUsage(has_user || !names_it || params->Contains(KM_TAG_NO_AUTH_REQUIRED),
                 "a key that is not for anybody needs --auth-sid");
  }
  if (args.Has("no-auth") || !has_user) params->Default(KM_TAG_NO_AUTH_REQUIRED, {"yes"});
}

using Pkey = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;

// Stands in for libcrypto's own callback, which would ask on the terminal.
int RejectPassphrase(char*, int, int, void*) { return -1; }

Pkey Decode(const Bytes& bytes) {
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(
      BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())), BIO_free);
  const char kMark[] = "-----BEGIN ";
  const bool is_pem =
      std::search(bytes.begin(), bytes.end(), kMark, kMark + sizeof(kMark) - 1) != bytes.end();
  if (is_pem) {
    return Pkey(PEM_read_bio_PrivateKey(bio.get(), nullptr, RejectPassphrase, nullptr),
                EVP_PKEY_free);
  }
  return Pkey(d2i_PrivateKey_bio(bio.get(), nullptr), EVP_PKEY_free);
}

Bytes ToPkcs8(EVP_PKEY* key) {
  const std::unique_ptr<PKCS8_PRIV_KEY_INFO, void (*)(PKCS8_PRIV_KEY_INFO*)> info(
      EVP_PKEY2PKCS8(key), PKCS8_PRIV_KEY_INFO_free);
  const int length = i2d_PKCS8_PRIV_KEY_INFO(info.get(), nullptr);
  Require(length > 0, "the key cannot be encoded as PKCS#8");
  Bytes der(static_cast<size_t>(length));
  uint8_t* end = der.data();
  i2d_PKCS8_PRIV_KEY_INFO(info.get(), &end);
  return der;
}

uint64_t ExponentOf(EVP_PKEY* key) {
  const RSA* rsa = EVP_PKEY_get0_RSA(key);
  const BIGNUM* exponent = rsa != nullptr ? RSA_get0_e(rsa) : nullptr;
  Require(exponent != nullptr && BN_num_bits(exponent) <= 64,
          "the key's public exponent is too large");
  return BN_get_word(exponent);
}

}  // namespace

Key::Key(const Args& args, const char* option)
    : path_(args.Text(option)),
      material_(ReadFile(path_)),
      binding_(std::make_shared<ParamList>()) {
  Require(!material_.empty(), path_ + " is empty: no key file");
  args.AddBindingTo(binding_.get());
  blob_ = KeyView(material_);
}

void Key::AddBindingTo(ParamList* params) const {
  for (keymaster_tag_t tag : {KM_TAG_APPLICATION_ID, KM_TAG_APPLICATION_DATA}) {
    if (const keymaster_blob_t* const bytes = binding_->BytesOf(tag); bytes != nullptr) {
      params->Add(tag, Copy(*bytes));
    }
  }
}

void Key::Check(const char* what, int32_t result, const std::string& hint) const {
  if (result == 0) return;
  Failure failure = ResultFailure(what, result, path_);
  if (!hint.empty()) failure.hint = hint;
  if (result == KM_ERROR_INVALID_KEY_BLOB) {
    failure.diagnose = [blob = material_, binding = binding_] {
      return DiagnoseKey(blob, *binding);
    };
  }
  throw Failure(failure);
}

void Key::ReadCharacteristics(Session* session, OwnedCharacteristics* out) const {
  Check("reading the key",
        (*session)->TivasKmGetKeyCharacteristics(blob(), app_id(), app_data(), out));
}

void FillNewKeyParams(const Args& args, const KeyFacts* facts, ParamList* params) {
  std::vector<keymaster_tag_t> order;
  for (const OptionRow& option : OptionsOf("generate")) {
    const bool is_param = option.tag != KM_TAG_INVALID;
    for (const std::string& text : is_param ? args.Texts(NameOf(option)) : Split("", ',')) {
      params->AddText(option.tag, text);
    }
    order.push_back(option.tag);
  }
  const uint32_t algorithm = facts != nullptr ? facts->algorithm : *AlgorithmOf(args);
  params->Default(KM_TAG_ALGORITHM, {ValueName(KM_TAG_ALGORITHM, algorithm)});
  RequireFits(algorithm, *params);
  for (const std::string& text : args.Texts("param")) {
    params->AddNamed(text);
  }
  if (facts != nullptr) params->Default(KM_TAG_KEY_SIZE, {std::to_string(facts->size)});
  if (facts != nullptr && facts->exponent != 0) {
    params->Default(KM_TAG_RSA_PUBLIC_EXPONENT, {std::to_string(facts->exponent)});
  }
  AddDefaults(algorithm, params);
  ResolvePkcs1(params);
  AddAuthentication(args, params);
  params->Default(KM_TAG_CREATION_DATETIME, {std::to_string(time(nullptr))});
  params->Sort(order);
}

std::string UsesHint(uint32_t algorithm) {
  std::string uses;
  for (const AlgorithmRow& row : kAlgorithms) {
    if (row.algorithm == algorithm) uses = Joined(Parsed(row.fits)[KM_TAG_PURPOSE], ", ");
  }
  return "a key for " + ValueName(KM_TAG_ALGORITHM, algorithm) + " has no such use, only " + uses;
}

std::optional<uint32_t> AlgorithmOf(const Args& args) {
  return args.Value("algorithm", KM_TAG_ALGORITHM);
}

NewKey::NewKey(const std::string& path, Output::Existing existing)
    : path_(path), output_(path, Output::Content::kSecret, existing) {
  NeedFileForJson(path);
}

NewKey::NewKey(const Args& args, const char* option)
    : NewKey(args.Text(option),
             args.Has("force") ? Output::Existing::kReplace : Output::Existing::kKeep) {}

keymaster_key_characteristics_t* NewKey::characteristics() {
  return Style().json ? &characteristics_ : nullptr;
}

void NewKey::Write(Session* session) {
  output_.Write(Copy(blob_));
  output_.Commit();
  KeepWitness(session);
  if (path_ == "-") return;
  Report report;
  report.Say("wrote " + path_ + " (" + std::to_string(blob_.key_material_size) + " bytes)")
      .Member("key", path_)
      .Member("bytes", blob_.key_material_size);
  if (characteristics_.hw_enforced.length + characteristics_.sw_enforced.length != 0) {
    report.Member("characteristics",
                  {{"hardware_enforced", SetJson(characteristics_.hw_enforced)},
                   {"software_enforced", SetJson(characteristics_.sw_enforced)}});
  }
  report.Print();
}

Bytes ToPem(const char* label, const keymaster_blob_t& der) {
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(BIO_new(BIO_s_mem()), BIO_free);
  Require(bio != nullptr &&
              PEM_write_bio(bio.get(), label, "", der.data, static_cast<long>(der.data_length)) > 0,
          "cannot write PEM");
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &text);
  return Bytes(text, text + length);
}

PrivateKey ReadPrivateKey(const Bytes& bytes) {
  const Pkey key = Decode(bytes);
  if (key == nullptr) {
    throw Failure(
        "the input is no unencrypted private key in PEM or DER",
        "decrypt it with: openssl pkey -in FILE -out CLEAR; or give --raw for a symmetric key");
  }
  PrivateKey out;
  const int type = EVP_PKEY_base_id(key.get());
  Require(type == EVP_PKEY_RSA || type == EVP_PKEY_EC,
          "only RSA and EC private keys can be imported");
  out.facts.algorithm = type == EVP_PKEY_RSA ? KM_ALGORITHM_RSA : KM_ALGORITHM_EC;
  out.facts.size = static_cast<uint64_t>(EVP_PKEY_bits(key.get()));
  if (type == EVP_PKEY_RSA) out.facts.exponent = ExponentOf(key.get());
  out.bytes = ToPkcs8(key.get());
  return out;
}

#include "requests.h"

#include <keymaster/android_keymaster_utils.h>
#include <keymaster/authorization_set.h>
#include <keymaster/wrapped_key.h>
#include <keymaster_tivas_context.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <string.h>
#include <zubrel.h>

#include "null_platform.h"

namespace bench {

namespace {

keymaster::KeymasterTivasContext& Km() {
  static keymaster::KeymasterTivasContext context;
  return context;
}

const Bytes kKeyBytes(256, 0x4B), kInput(64, 0x49), kId(32, 0x1D), kNonce(12, 0x0E),
    kToken(69, 0x70), kMask(32, 0x5A), kHmacIn(128, 0x48), kHandle(8, 1);
const keymaster_key_blob_t kKey = KeyView(kKeyBytes);
const keymaster_blob_t kInputBlob = View(kInput), kIdBlob = View(kId), kTokenBlob = View(kToken);

// An AES-GCM operation: eight parameters, two of them bytes.
const Params kBeginParams = {Number(KM_TAG_PURPOSE, KM_PURPOSE_ENCRYPT),
                             Number(KM_TAG_ALGORITHM, KM_ALGORITHM_AES),
                             Number(KM_TAG_BLOCK_MODE, KM_MODE_GCM),
                             Number(KM_TAG_PADDING, KM_PAD_NONE),
                             Number(KM_TAG_KEY_SIZE, 256),
                             Number(KM_TAG_MAC_LENGTH, 128),
                             Blob(KM_TAG_NONCE, kNonce),
                             Blob(KM_TAG_APPLICATION_ID, kId)};
// A key to be made or attested.
const Params kKeyParams = {
    Number(KM_TAG_ALGORITHM, KM_ALGORITHM_EC),  Number(KM_TAG_KEY_SIZE, 256),
    Number(KM_TAG_PURPOSE, KM_PURPOSE_SIGN),    Number(KM_TAG_PURPOSE, KM_PURPOSE_WRAP_KEY),
    Number(KM_TAG_DIGEST, KM_DIGEST_SHA_2_256), Number(KM_TAG_NO_AUTH_REQUIRED, 1),
    Number(KM_TAG_OS_VERSION, 130000),          Blob(KM_TAG_APPLICATION_ID, kId)};
const Params kUpdateParams = {Blob(KM_TAG_AUTH_TOKEN, kToken)};
const Params kSystemParams = {Number(KM_TAG_OS_VERSION, 130000),
                              Number(KM_TAG_OS_PATCHLEVEL, 202611)};

const keymaster_key_param_set_t kBeginSet = SetOf(kBeginParams), kKeySet = SetOf(kKeyParams),
                                kUpdateSet = SetOf(kUpdateParams),
                                kSystemSet = SetOf(kSystemParams);

Bytes Der(uint8_t tag, const std::vector<Bytes>& parts) {
  Bytes content;
  for (const Bytes& part : parts) content.insert(content.end(), part.begin(), part.end());
  const auto size = content.size();
  Bytes der = size < 128
                  ? Bytes{tag, static_cast<uint8_t>(size)}
                  : Bytes{tag, 0x82, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)};
  der.insert(der.end(), content.begin(), content.end());
  return der;
}

// An AES key, wrapped: version, transit key, nonce, description, encrypted key, tag.
const Bytes& Wrapped() {
  static const Bytes wrapped =
      Der(0x30, {{2, 1, 0},
                 Der(4, {Bytes(256, 1)}),
                 Der(4, {kNonce}),
                 Der(0x30, {{2, 1, 3}, Der(0x30, {Der(0xa2, {{2, 1, 0x20}})})}),
                 Der(4, {Bytes(32, 2)}),
                 Der(4, {Bytes(16, 3)})});
  return wrapped;
}

// The TA's form of an RSA public key: algorithm, bits, lengths, modulus and exponent.
Bytes RawPublicKey() {
  Bytes reply = {1, 0, 0, 0, 0, 8, 0, 0, 0, 1, 0, 0, 3, 0, 0, 0};
  reply.resize(16 + 256, 0xC3);
  reply.insert(reply.end(), {1, 0, 1});
  return reply;
}

Bytes Chain() {
  Bytes chain = {3, 0, 0, 0};
  for (int i = 0; i < 3; ++i) {
    chain.insert(chain.end(), {0xBC, 2, 0, 0});
    chain.resize(chain.size() + 0x2BC, 0x30);
  }
  return chain;
}

bool SetReplies() {
  const Bytes characteristics = Wire(kKeyParams);
  for (const auto& [command, index] : {std::pair(2u, 2u), {4u, 2u}, {7u, 2u}}) {
    SetReply(command, index, kKeyBytes);
  }
  for (const auto& [command, index] : {std::pair(2u, 3u), {3u, 2u}, {4u, 3u}}) {
    SetReply(command, index, characteristics);
  }
  SetReply(5, 2, RawPublicKey());
  SetReply(6, 2, Chain());
  SetReply(8, 2, OneList({Blob(KM_TAG_NONCE, kNonce)}));
  SetReply(10, 3, Bytes(32, 0xF1));
  SetReply(39, 2, OneList(MakeParams(2, 0, {})));
  SetReply(39, 3, Bytes(64, 0x77));
  SetReply(64, 0, Bytes(32, 1));
  SetReply(64, 1, Bytes(32, 2));
  SetReply(65, 1, Bytes(32, 3));
  Pkcs8Rsa();
  Pkcs8Ec();
  if (Ts_Initcontext() != 0) abort();
  return true;
}

// ---- The library's side

struct Outputs {
  ~Outputs() {
    Release(&set);
    Release(&characteristics.hw_enforced);
    Release(&characteristics.sw_enforced);
    Release(&blob);
    Release(&key);
    for (size_t i = 0; i < chain.entry_count; ++i) Release(&chain.entries[i]);
    free(chain.entries);
  }
  keymaster_key_param_set_t set = {};
  keymaster_key_characteristics_t characteristics = {};
  keymaster_blob_t blob = {};
  keymaster_key_blob_t key = {};
  keymaster_cert_chain_t chain = {};
  unsigned long number = 0;
};

int32_t Import(keymaster_key_format_t format, const Bytes& bytes) {
  Outputs out;
  const keymaster_blob_t data = View(bytes);
  return Km().TivasKmImportKey(&kKeySet, format, &data, &out.key, &out.characteristics);
}

// ---- The raw side

const Bytes& KeyWire() {
  static const Bytes wire = Wire(kKeyParams);
  return wire;
}
const Bytes& BeginWire() {
  static const Bytes wire = Wire(kBeginParams);
  return wire;
}
const Bytes& IdWire() {
  static const Bytes wire =
      Wire({Blob(KM_TAG_APPLICATION_ID, kId), Blob(KM_TAG_APPLICATION_DATA, kId)});
  return wire;
}
const Bytes& UpdateWire() {
  static const Bytes wire = Wire(kUpdateParams);
  return wire;
}

int32_t RawImport() { return Raw(4, {In(KeyWire()), In(kInput), Reply(4096), Reply(4096)}); }
int32_t RawBegin() { return Raw(8, {In(kKeyBytes), In(BeginWire()), Reply(4096), Value()}); }
int32_t RawFinish() { return Raw(10, {In(UpdateWire()), In(kInput), Reply(4096), Reply(4096)}); }

bool WriteNumbers(std::initializer_list<const BIGNUM*> numbers) {
  uint8_t out[512];
  for (const BIGNUM* number : numbers) {
    if (number == nullptr || BN_bn2bin(number, out) == 0) return false;
  }
  return true;
}

// What libcrypto does in an import of PKCS#8 by itself, from the DER to the key's integers as
// bytes, and the raw command.
bool ReadRsa(const EVP_PKEY* key) {
  const RSA* rsa = EVP_PKEY_get0_RSA(key);
  return rsa != nullptr &&
         WriteNumbers({RSA_get0_n(rsa), RSA_get0_e(rsa), RSA_get0_p(rsa), RSA_get0_q(rsa),
                       RSA_get0_dmp1(rsa), RSA_get0_dmq1(rsa), RSA_get0_iqmp(rsa)});
}
bool ReadEc(const EVP_PKEY* key) {
  const EC_KEY* ec = EVP_PKEY_get0_EC_KEY(key);
  BIGNUM* x = BN_new();
  BIGNUM* y = BN_new();
  const bool read = EC_POINT_get_affine_coordinates_GFp(
                        EC_KEY_get0_group(ec), EC_KEY_get0_public_key(ec), x, y, nullptr) == 1 &&
                    WriteNumbers({x, y, EC_KEY_get0_private_key(ec)});
  BN_free(x);
  BN_free(y);
  return read;
}
int32_t RawPkcs8Import(const Bytes& bytes) {
  const uint8_t* at = bytes.data();
  PKCS8_PRIV_KEY_INFO* info =
      d2i_PKCS8_PRIV_KEY_INFO(nullptr, &at, static_cast<long>(bytes.size()));
  EVP_PKEY* key = EVP_PKCS82PKEY(info);
  PKCS8_PRIV_KEY_INFO_free(info);
  const bool read = EVP_PKEY_id(key) == EVP_PKEY_RSA ? ReadRsa(key) : ReadEc(key);
  EVP_PKEY_free(key);
  return read ? RawImport() : -1;
}

int32_t RawExport() {
  static const Bytes reply = RawPublicKey();
  const int32_t result = Raw(5, {In(kKeyBytes), In(IdWire()), Reply(4096), {}});
  RSA* rsa = RSA_new();
  RSA_set0_key(rsa, BN_bin2bn(reply.data() + 16, 256, nullptr),
               BN_bin2bn(reply.data() + 16 + 256, 3, nullptr), nullptr);
  EVP_PKEY* key = EVP_PKEY_new();
  EVP_PKEY_assign_RSA(key, rsa);
  const int length = i2d_PUBKEY(key, nullptr);
  auto* der = static_cast<uint8_t*>(malloc(static_cast<size_t>(length)));
  uint8_t* at = der;
  i2d_PUBKEY(key, &at);
  free(der);
  EVP_PKEY_free(key);
  return result;
}

int32_t RawWrappedImport() {
  keymaster::TKeymasterBlob<keymaster_key_blob_t> wrapped;
  wrapped.key_material = keymaster::dup_buffer(Wrapped().data(), Wrapped().size());
  wrapped.key_material_size = Wrapped().size();
  keymaster::TKeymasterBlob<keymaster_blob_t> iv, tag, description;
  keymaster::TKeymasterBlob<keymaster_key_blob_t> transit, material;
  keymaster::AuthorizationSet list;
  keymaster_key_format_t format;
  int32_t result = keymaster::parse_wrapped_key(wrapped, &iv, &transit, &material, &tag, &list,
                                                &format, &description);
  result |= Raw(3, {In(kKeyBytes), {}, Reply(4096), {}});
  for (int i = 0; i < 2; ++i) result |= RawBegin() | RawFinish() | RawImport();
  return result;
}

Bytes MakePkcs8(EVP_PKEY* key) {
  PKCS8_PRIV_KEY_INFO* info = EVP_PKEY2PKCS8(key);
  uint8_t* der = nullptr;
  const int length = i2d_PKCS8_PRIV_KEY_INFO(info, &der);
  if (length <= 0) abort();
  Bytes bytes(der, der + length);
  OPENSSL_free(der);
  PKCS8_PRIV_KEY_INFO_free(info);
  EVP_PKEY_free(key);
  return bytes;
}

}  // namespace

int32_t Raw(uint32_t command, const std::array<Slot, 4>& slots) {
  TEEC_Operation operation = {};
  operation.started = 1;
  void* replies[4] = {};
  for (size_t i = 0; i < slots.size(); ++i) {
    const Slot& slot = slots[i];
    operation.paramTypes |= slot.type << (4 * i);
    if (slot.type < TEEC_MEMREF_TEMP_INPUT) continue;
    const bool is_reply = slot.buffer == nullptr && slot.size != 0;
    if (is_reply) replies[i] = malloc(slot.size);
    operation.params[i].tmpref = {is_reply ? replies[i] : const_cast<void*>(slot.buffer),
                                  slot.size};
  }
  TEEC_Context context = {};
  TEEC_Session session = {};
  TEEC_UUID uuid = {};
  TEEC_Operation open = {};
  uint32_t origin = 0;
  zubrel_init();
  int id = __zubrel_start_ex("open", 32, nullptr, nullptr, 3);
  TEEC_Result result = TEEC_OpenSession(&context, &session, &uuid, 7, nullptr, &open, &origin);
  zubrel_end(id);
  id = __zubrel_start_ex("invoke", 32, nullptr, nullptr, 3);
  result |= TEEC_InvokeCommand(&session, command, &operation, &origin);
  zubrel_end(id);
  id = __zubrel_start_ex("close", 32, nullptr, nullptr, 3);
  TEEC_CloseSession(&session);
  zubrel_end(id);
  for (void* reply : replies) free(reply);
  return static_cast<int32_t>(result);
}

const Bytes& Pkcs8Rsa() {
  static const Bytes bytes =
      MakePkcs8(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048)));
  return bytes;
}

const Bytes& Pkcs8Ec() {
  static const Bytes bytes = MakePkcs8(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  return bytes;
}

const Request& FindRequest(const std::string& name) {
  for (const Request& request : Requests()) {
    if (request.name == name) return request;
  }
  abort();
}

const std::vector<Request>& Requests() {
  static const bool ready = SetReplies();
  (void)ready;
  static const std::vector<Request> requests = {
      {"Configure", 1, [] { return Km().TivasKmConfigure(&kSystemSet); },
       [] {
         return Raw(1, {Value(), {}, {}, {}});
       }},
      {"GenerateKey", 1,
       [] {
         Outputs out;
         return Km().TivasKmGenerateKey(&kKeySet, &out.key, &out.characteristics);
       },
       [] {
         return Raw(2, {In(KeyWire()), {}, Reply(4096), Reply(4096)});
       }},
      {"GetKeyCharacteristics", 1,
       [] {
         Outputs out;
         return Km().TivasKmGetKeyCharacteristics(&kKey, &kIdBlob, &kIdBlob, &out.characteristics);
       },
       [] {
         return Raw(3, {In(kKeyBytes), In(IdWire()), Reply(4096), {}});
       }},
      {"ImportKey raw", 1, [] { return Import(KM_KEY_FORMAT_RAW, kInput); }, RawImport},
      {"ImportKey PKCS#8 RSA", 1, [] { return Import(KM_KEY_FORMAT_PKCS8, Pkcs8Rsa()); },
       [] { return RawPkcs8Import(Pkcs8Rsa()); }},
      {"ImportKey PKCS#8 EC", 1, [] { return Import(KM_KEY_FORMAT_PKCS8, Pkcs8Ec()); },
       [] { return RawPkcs8Import(Pkcs8Ec()); }},
      {"ExportKey", 1,
       [] {
         Outputs out;
         return Km().TivasKmExportKey(KM_KEY_FORMAT_X509, &kKey, &kIdBlob, &kIdBlob, &out.blob);
       },
       RawExport},
      {"AttestKey", 1,
       [] {
         Outputs out;
         return Km().TivasKmAttestKey(&kKey, &kKeySet, &out.chain);
       },
       [] {
         return Raw(6, {In(kKeyBytes), In(KeyWire()), Reply(8192), {}});
       }},
      {"UpgradeKey", 1,
       [] {
         Outputs out;
         return Km().TivasKmUpgradeKey(&kKey, &kKeySet, &out.key);
       },
       [] {
         return Raw(7, {In(kKeyBytes), In(KeyWire()), Reply(4096), {}});
       }},
      {"Begin", 1,
       [] {
         Outputs out;
         return Km().TivasKmBegin(KM_PURPOSE_ENCRYPT, &kKey, &kBeginSet, &out.set, &out.number);
       },
       RawBegin},
      {"Update", 1,
       [] {
         Outputs out;
         return Km().TivasKmUpdate(1, &kUpdateSet, &kInputBlob, &out.number, &out.set, &out.blob);
       },
       [] {
         return Raw(9, {In(UpdateWire()), In(kInput), Reply(4096), Reply(64)});
       }},
      {"Finish", 1,
       [] {
         Outputs out;
         return Km().TivasKmFinish(1, &kUpdateSet, &kInputBlob, &kIdBlob, &out.set, &out.blob);
       },
       RawFinish},
      {"Abort", 1, [] { return Km().TivasKmAbort(1); },
       [] {
         return Raw(11, {In(kHandle), {}, {}, {}});
       }},
      {"Deletekey", 1, [] { return Km().TivasKmDeletekey(&kKey); },
       [] {
         return Raw(31, {In(kKeyBytes), {}, {}, {}});
       }},
      {"ImportWrappedKeyNew", 7,
       [] {
         Outputs out;
         const keymaster_key_blob_t wrapped = KeyView(Wrapped()), mask = KeyView(kMask);
         const keymaster_key_param_set_t none = {};
         return Km().TivasKmImportWrappedKeyNew(&wrapped, &kKey, &mask, &none, 1, 2, &out.key,
                                                &out.characteristics);
       },
       RawWrappedImport},
      {"VerifyAuthorization", 1,
       [] {
         Outputs out;
         TsVerificationToken token = {};
         token.parameters_verified = &out.set;
         return Km().TivasVerifyAuthorization(1, &kUpdateSet, &kTokenBlob, &token);
       },
       [] {
         return Raw(39, {In(UpdateWire()), In(kToken), Reply(4096), Reply(4096)});
       }},
      {"EarlyBootEnded", 1, [] { return Km().TivasKmEarlyBootEnded(); },
       [] { return Raw(40, {}); }},
      {"DeviceLocked", 1, [] { return Km().TivasKmDeviceLocked(true); },
       [] {
         return Raw(41, {Value(), {}, {}, {}});
       }},
      {"getHmacSharingParameters", 1,
       [] {
         uint8_t seed[32], nonce[32];
         return Km().TivasgetHmacSharingParameters(seed, sizeof(seed), nonce, sizeof(nonce));
       },
       [] {
         return Raw(64, {Reply(32), Reply(32), {}, {}});
       }},
      {"computeSharedHmac", 1,
       [] {
         Outputs out;
         return Km().TivascomputeSharedHmac(const_cast<uint8_t*>(kHmacIn.data()), 128, &out.blob);
       },
       [] {
         return Raw(65, {In(kHmacIn), Reply(4096), {}, {}});
       }},
  };
  return requests;
}

}  // namespace bench

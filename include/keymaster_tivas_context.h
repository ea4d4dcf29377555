// The keymaster back-end as a HAL service uses it: one object, one method a keymaster request.
//
// Conventions, which every method follows:
//  1. A method returns one 32-bit result that carries two kinds of code: 0 for success, a
//     (negative) keymaster_error_t for what the library finds itself, or the GlobalPlatform TEE
//     result (0xFFFFxxxx, or a code of the TA's) of the failed TA command, unchanged.
//  2. Outputs that the caller receives are malloc buffers; the caller releases them with free():
//     of a parameter set each byte value's data, then the array; of a chain each entry's data,
//     then the array.
//  3. An output is written on success. A failure leaves it untouched, unless its method says that
//     it is cleared or emptied: it is then null with length 0. What an output held before is
//     overwritten and never released.
//  4. An argument that is null and must not be is KM_ERROR_UNEXPECTED_NULL_POINTER (-32), or
//     KM_ERROR_OUTPUT_PARAMETER_NULL (-27) for the key blob, characteristics or data to be written,
//     unless said otherwise. "May be null" is said where it holds. A set with a length and no
//     array, memory that runs out and a reply that does not decode are
//     KM_ERROR_MEMORY_ALLOCATION_FAILED (-41), unless said otherwise. Null data within an argument
//     is never read; which code it comes to is no promise unless said.
//  5. Input stays the caller's, is not kept and not changed. Lengths are in bytes.
//  6. Every TA command needs the process-wide TEE context: without it the result is
//     TEEC_ERROR_BAD_PARAMETERS (0xFFFF0006).
//  7. Methods may run on several threads at once, but the TEE context must not be made or
//     finalised (Initialize, InitTeeContext, FinishTeeContext) while a request runs. libcrypto's
//     error queue of the calling thread is left as it was found, but that libcrypto, which keeps 16
//     errors, drops the oldest for those of a failure; BoringSSL itself empties it when it makes an
//     RSA key.
#ifndef KEYMASTER_TIVAS_CONTEXT_H
#define KEYMASTER_TIVAS_CONTEXT_H

#include <hardware/keymaster_defs.h>
#include <keymaster/km_version.h>
#include <stdint.h>

namespace keymaster {
class AuthorizationSet;
template <typename BlobType>
struct TKeymasterBlob;
}  // namespace keymaster

static_assert(sizeof(unsigned long) == 8, "operation handles travel in an unsigned long");

// TsVerificationToken is what TivasVerifyAuthorization returns: the TA's words, unchecked. The
// caller sets parameters_verified (may be null) to a set that is null with length 0; its content is
// filled, the pointer stays.
struct TsVerificationToken {
  uint64_t challenge;                              // as the TA returned it
  uint64_t timestamp;                              // in the TA's unit
  keymaster_key_param_set_t* parameters_verified;  // what the TA verified
  uint32_t security_level;                         // a keymaster_security_level_t
  uint8_t mac[32];                                 // the TA's
};

#if defined(__GNUC__)
#define KEYMASTER41_TS_API __attribute__((visibility("default")))
#else
#define KEYMASTER41_TS_API
#endif

namespace keymaster {

// KeymasterTivasContext serves the keymaster requests of a HAL service.
class KEYMASTER41_TS_API KeymasterTivasContext {
 public:
  KeymasterTivasContext();
  ~KeymasterTivasContext();

  // ---- Lifecycle and configuration

  // Initialize connects to the keymaster TA and configures it with the platform's OS version and
  // patch level. On a failed configuration the TEE context stays up.
  [[nodiscard]] int32_t Initialize(KmVersion version);
  // InitTeeContext makes the process-wide TEE context, replacing one that exists.
  [[nodiscard]] int32_t InitTeeContext();
  // FinishTeeContext finalises the TEE context; TEEC_ERROR_BAD_PARAMETERS (0xFFFF0006) when there
  // is none.
  [[nodiscard]] int32_t FinishTeeContext();
  // TivasKmConfigure sends KM_TAG_OS_VERSION and KM_TAG_OS_PATCHLEVEL of params to the TA;
  // KM_ERROR_INVALID_ARGUMENT (-38) when either is missing, KM_ERROR_UNEXPECTED_NULL_POINTER (-32)
  // for a null set or array.
  [[nodiscard]] int32_t TivasKmConfigure(const keymaster_key_param_set_t* params);
  // SetSystemVersion stores both values in the object; always 0.
  int32_t SetSystemVersion(unsigned int os_version, unsigned int os_patchlevel);
  // GetSystemVersion reads them back (0 before any SetSystemVersion). Writes nothing if either
  // pointer is null.
  void GetSystemVersion(unsigned int* os_version, unsigned int* os_patchlevel);
  // TivasKmAddRngEntropy is answered without the TA, as are the two below; always 0.
  int32_t TivasKmAddRngEntropy(const unsigned char* data, unsigned long length);
  // TivasKmDeleteAllKeys deletes nothing; always 0.
  int32_t TivasKmDeleteAllKeys();
  // TivasKmDestroyAttestationIds destroys nothing; always 0.
  int32_t TivasKmDestroyAttestationIds();

  // ---- Keys

  // TivasKmGenerateKey makes a key from its description. RSA keys are generated in software and
  // imported; all others are made by the TA. characteristics may be null. An array that is null in
  // a set with a length is KM_ERROR_UNEXPECTED_NULL_POINTER (-32). Of RSA keys, a public exponent
  // that is missing or above 2^32 - 1 is KM_ERROR_INVALID_ARGUMENT (-38), a size that is missing,
  // below 16, above 4096 bits or no multiple of 8 KM_ERROR_UNSUPPORTED_KEY_SIZE (-6), and a key
  // that libcrypto does not make KM_ERROR_UNKNOWN_ERROR (-1000). A key blob longer than its reply
  // buffer is KM_ERROR_UNKNOWN_ERROR (-1000), and so is one without bytes for an RSA key. After
  // characteristics that do not decode key_blob is emptied, and so are both lists, but by a reply
  // of 3 bytes or fewer, which leaves them untouched.
  [[nodiscard]] int32_t TivasKmGenerateKey(const keymaster_key_param_set_t* params,
                                           keymaster_key_blob_t* key_blob,
                                           keymaster_key_characteristics_t* characteristics);
  // TivasKmImportKey imports PKCS#8 (RSA, EC) or raw key bytes; KM_ERROR_UNSUPPORTED_KEY_FORMAT
  // (-17) for any other format and for PKCS#8 that does not decode. characteristics may be null.
  // Its replies are treated as those of TivasKmGenerateKey, but that a key blob without bytes is
  // no failure.
  [[nodiscard]] int32_t TivasKmImportKey(const keymaster_key_param_set_t* params,
                                         keymaster_key_format_t format,
                                         const keymaster_blob_t* key_data,
                                         keymaster_key_blob_t* key_blob,
                                         keymaster_key_characteristics_t* characteristics);
  // TivasKmExportKey returns the public key as a DER SubjectPublicKeyInfo; for any format but
  // KM_KEY_FORMAT_X509 KM_ERROR_UNSUPPORTED_KEY_FORMAT (-17). client_id and app_data may be null.
  // output is cleared once key and output are not null. A reply whose lengths do not fit is
  // KM_ERROR_UNKNOWN_ERROR (-1000), one that libcrypto makes no key of, or whose key it does not
  // encode, KM_ERROR_INVALID_ARGUMENT (-38).
  [[nodiscard]] int32_t TivasKmExportKey(keymaster_key_format_t format,
                                         const keymaster_key_blob_t* key,
                                         const keymaster_blob_t* client_id,
                                         const keymaster_blob_t* app_data,
                                         keymaster_blob_t* output);
  // TivasKmGetKeyCharacteristics returns what the TA and the system enforce for a key. client_id
  // and app_data may be null. A reply that does not decode empties both lists.
  [[nodiscard]] int32_t TivasKmGetKeyCharacteristics(
      const keymaster_key_blob_t* key, const keymaster_blob_t* client_id,
      const keymaster_blob_t* app_data, keymaster_key_characteristics_t* characteristics);
  // TivasKmUpgradeKey has the TA wrap a key anew under the current system version. A key that
  // needs no upgrade gives 0 and leaves upgraded_key untouched. A key blob longer than its reply
  // buffer is KM_ERROR_UNKNOWN_ERROR (-1000).
  [[nodiscard]] int32_t TivasKmUpgradeKey(const keymaster_key_blob_t* key_to_upgrade,
                                          const keymaster_key_param_set_t* upgrade_params,
                                          keymaster_key_blob_t* upgraded_key);
  // TivasKmDeletekey deletes a key; KM_ERROR_UNIMPLEMENTED (-100) for a null key.
  [[nodiscard]] int32_t TivasKmDeletekey(const keymaster_key_blob_t* key);
  // TivasKmAttestKey returns the certificate chain of a key, in the TA's order;
  // KM_ERROR_UNIMPLEMENTED (-100) when device-unique attestation is asked for,
  // KM_ERROR_UNEXPECTED_NULL_POINTER (-32) for a null chain, or array in a set with a length. A
  // chain of fewer than two certificates, or that does not decode, is KM_ERROR_UNKNOWN_ERROR
  // (-1000). Once the TA has succeeded chain is cleared, and stays empty after a failure.
  [[nodiscard]] int32_t TivasKmAttestKey(const keymaster_key_blob_t* key,
                                         const keymaster_key_param_set_t* attest_params,
                                         keymaster_cert_chain_t* chain);

  // ---- Operations

  // TivasKmBegin starts an operation and returns its handle. in_params and out_params may be null.
  // A null op_handle is KM_ERROR_MEMORY_ALLOCATION_FAILED (-41). out_params is cleared once key and
  // op_handle are not null. Output parameters that do not decode abort the operation.
  [[nodiscard]] int32_t TivasKmBegin(keymaster_purpose_t purpose, const keymaster_key_blob_t* key,
                                     const keymaster_key_param_set_t* in_params,
                                     keymaster_key_param_set_t* out_params,
                                     unsigned long* op_handle);
  // TivasKmUpdate feeds input; all of it counts as consumed. in_params, out_params and output may
  // be null. A null input sends the associated data of in_params alone, without which the result is
  // KM_ERROR_UNEXPECTED_NULL_POINTER (-32); what the TA returns is then dropped, and input_consumed
  // is not written. A null input_consumed beside input is KM_ERROR_OUTPUT_PARAMETER_NULL (-27).
  // Input may have 2^32 - 17 bytes: up to 2^32 - 1 the result is KM_ERROR_UNEXPECTED_NULL_POINTER
  // (-32), above KM_ERROR_INVALID_INPUT_LENGTH (-21). None of these four touches an output; past
  // them out_params and output are cleared, and stay empty after a failure. Output longer than
  // offered is KM_ERROR_UNKNOWN_ERROR (-1000). Output parameters that do not decode abort the
  // operation; no other failure does.
  // Warning: input with a length and a null data pointer sends no bytes and reports all of them as
  // consumed.
  [[nodiscard]] int32_t TivasKmUpdate(unsigned long op_handle,
                                      const keymaster_key_param_set_t* in_params,
                                      const keymaster_blob_t* input, unsigned long* input_consumed,
                                      keymaster_key_param_set_t* out_params,
                                      keymaster_blob_t* output);
  // TivasKmFinish ends an operation with up to 4096 bytes of input; KM_ERROR_INVALID_INPUT_LENGTH
  // (-21) above. Every pointer may be null. out_params is cleared at once, output once the length
  // was judged: -21 leaves it untouched. Output longer than 4096 bytes is KM_ERROR_UNKNOWN_ERROR
  // (-1000). No failure aborts the operation.
  [[nodiscard]] int32_t TivasKmFinish(unsigned long op_handle,
                                      const keymaster_key_param_set_t* in_params,
                                      const keymaster_blob_t* input,
                                      const keymaster_blob_t* signature,
                                      keymaster_key_param_set_t* out_params,
                                      keymaster_blob_t* output);
  // TivasKmFinishNew ends an operation with input of any size: TivasKmFinishLarge above 4032
  // bytes, else TivasKmFinish.
  [[nodiscard]] int32_t TivasKmFinishNew(unsigned long op_handle,
                                         const keymaster_key_param_set_t* in_params,
                                         const keymaster_blob_t* input,
                                         const keymaster_blob_t* signature,
                                         keymaster_key_param_set_t* out_params,
                                         keymaster_blob_t* output);
  // TivasKmFinishLarge sends all but the last 4032 bytes as an update and the rest as the finish,
  // and joins their outputs. out_params (may be null) and output are cleared at once, and stay
  // empty after a failure. KM_ERROR_UNEXPECTED_NULL_POINTER (-32) for missing input and, once both
  // commands were sent, for a null output; KM_ERROR_INVALID_INPUT_LENGTH (-21) for input of 4032
  // bytes or fewer; KM_ERROR_MEMORY_ALLOCATION_FAILED (-41) when neither command produced output.
  [[nodiscard]] int32_t TivasKmFinishLarge(unsigned long op_handle,
                                           const keymaster_key_param_set_t* in_params,
                                           const keymaster_blob_t* input,
                                           const keymaster_blob_t* signature,
                                           keymaster_key_param_set_t* out_params,
                                           keymaster_blob_t* output);
  // TivasKmAbort cancels an operation.
  [[nodiscard]] int32_t TivasKmAbort(unsigned long op_handle);

  // ---- Wrapped key import

  // TivasKmImportWrappedKeyNew imports a key that arrives wrapped for this device. The key
  // description's user secure id becomes password_sid or biometric_sid as its auth token says.
  // characteristics may be null; unwrapping_params may be an empty set, not null. A wrapping key
  // without the purpose is KM_ERROR_INCOMPATIBLE_PURPOSE (-3), a mask of another length than the
  // transit key KM_ERROR_INVALID_ARGUMENT (-38); a wrapper that does not parse has the parser's
  // code. key_blob and characteristics are treated as by TivasKmImportKey.
  [[nodiscard]] int32_t TivasKmImportWrappedKeyNew(
      const keymaster_key_blob_t* wrapped_key_data, const keymaster_key_blob_t* wrapping_key,
      const keymaster_key_blob_t* masking_key, const keymaster_key_param_set_t* unwrapping_params,
      unsigned long password_sid, unsigned long biometric_sid, keymaster_key_blob_t* key_blob,
      keymaster_key_characteristics_t* characteristics);
  // TivasKmUnwrappedKey parses a wrapper and decrypts what it holds. auth_list and key_format are
  // written once it is parsed, whatever follows. key_material receives a malloc buffer of secret
  // bytes that the caller wipes and frees; it is cleared before the last decryption ends, untouched
  // by a failure before that and empty after one from then on.
  [[nodiscard]] int32_t TivasKmUnwrappedKey(const TKeymasterBlob<keymaster_key_blob_t>* wrapped_key,
                                            keymaster_key_blob_t* wrapping_key,
                                            keymaster_key_param_set_t* unwrapping_params,
                                            keymaster_key_blob_t* masking_key,
                                            AuthorizationSet* auth_list,
                                            keymaster_key_format_t* key_format,
                                            keymaster_blob_t* key_material);
  // DecryptTransitKeyMaterial decrypts the transit key with the given unwrapping parameters, or
  // with the default ones when that set is empty. plain_transit_key receives a buffer as
  // key_material above; it is cleared at once, and stays empty after a failure.
  [[nodiscard]] int32_t DecryptTransitKeyMaterial(
      keymaster_key_blob_t* wrapping_key, keymaster_key_param_set_t* unwrapping_params,
      TKeymasterBlob<keymaster_key_blob_t>* encrypted_transit_key,
      keymaster_blob_t* plain_transit_key);
  // TransitKeyRsaDecrypt is its begin and finish under the wrapping key; plain_transit_key is
  // cleared between the two, but untouched when more than 4096 bytes are to be decrypted
  // (KM_ERROR_INVALID_INPUT_LENGTH, -21).
  [[nodiscard]] int32_t TransitKeyRsaDecrypt(
      keymaster_key_blob_t* wrapping_key, keymaster_key_param_set_t* unwrapping_params,
      TKeymasterBlob<keymaster_key_blob_t>* encrypted_transit_key,
      keymaster_blob_t* plain_transit_key);
  // WrappedKeyAesGcmDecrypt imports the transit key and decrypts payload (the encrypted key
  // material followed by the tag) under it. key_material receives a buffer as above; it is cleared
  // once the decryption has begun, but for a payload that is refused as too long as above.
  [[nodiscard]] int32_t WrappedKeyAesGcmDecrypt(keymaster_blob_t* plain_transit_key,
                                                TKeymasterBlob<keymaster_blob_t>* iv,
                                                TKeymasterBlob<keymaster_blob_t>* key_description,
                                                TKeymasterBlob<keymaster_key_blob_t>* payload,
                                                keymaster_blob_t* key_material);

  // ---- Authorization, device state and HMAC sharing

  // TivasVerifyAuthorization has the TA check an auth token against a challenge and parameters.
  // A token reply that is not 64 bytes long is KM_ERROR_VERIFICATION_FAILED (-30), one that cannot
  // be copied KM_ERROR_UNKNOWN_ERROR (-1000): the parameters that the TA verified are the caller's
  // all the same, to be released. Parameters that do not decode leave their set empty, but by a
  // reply of 3 bytes or fewer, which leaves it untouched. The token's other fields are written on
  // success only.
  [[nodiscard]] int32_t TivasVerifyAuthorization(unsigned long challenge,
                                                 const keymaster_key_param_set_t* params_to_verify,
                                                 const keymaster_blob_t* auth_token,
                                                 TsVerificationToken* verification_token);
  // TivasKmEarlyBootEnded tells the TA that early boot is over.
  [[nodiscard]] int32_t TivasKmEarlyBootEnded();
  // TivasKmDeviceLocked tells the TA that the device is locked, and whether to all but a password.
  [[nodiscard]] int32_t TivasKmDeviceLocked(bool password_only);
  // TivasgetHmacSharingParameters has the TA fill both buffers, whose sizes are fixed between
  // caller and TA: the lengths produced are not returned. A null buffer is
  // TEEC_ERROR_BAD_PARAMETERS (0xFFFF0006). After a failure a buffer may hold what the TA wrote.
  [[nodiscard]] int32_t TivasgetHmacSharingParameters(unsigned char* hmac_out1,
                                                      unsigned int hmac_out1_len,
                                                      unsigned char* hmac_out2,
                                                      unsigned int hmac_out2_len);
  // TivascomputeSharedHmac agrees on the shared key. A null sharing_check is
  // KM_ERROR_UNEXPECTED_NULL_POINTER (-32) too; once neither pointer is null it is cleared. A check
  // longer than its reply buffer is KM_ERROR_UNKNOWN_ERROR (-1000).
  [[nodiscard]] int32_t TivascomputeSharedHmac(unsigned char* sharing_params,
                                               unsigned int sharing_params_len,
                                               keymaster_blob_t* sharing_check);

 private:
  uint32_t os_version_;
  uint32_t os_patchlevel_;
  // Reserved: cleared by the constructor, part of the object's size.
  bool flags_[4];
};

}  // namespace keymaster

#endif  // KEYMASTER_TIVAS_CONTEXT_H

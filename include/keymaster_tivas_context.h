// The keymaster back-end as a HAL service uses it: one object, one method a keymaster request.
//
// Conventions, which every method follows:
//  1. A method returns one 32-bit result that carries two kinds of code: 0 for success, a
//     (negative) keymaster_error_t for what the library finds itself, or the GlobalPlatform TEE
//     result (0xFFFFxxxx, or a code of the TA's) of the failed TA command, unchanged.
//  2. Outputs that the caller receives are malloc buffers; the caller releases them with free():
//     of a parameter set each byte value's data, then the array; of a chain each entry's data,
//     then the array.
//  3. An output is written on success. Where a method clears an output first, a failure leaves it
//     null with length 0; otherwise a failure leaves it untouched.
//  4. Input stays the caller's, is not kept and not changed.
//  5. Lengths are in bytes unless said otherwise. "May be null" is said where it holds.
//  6. Every TA command needs the process-wide TEE context: without it the result is 0xFFFF0006.
//  7. Methods may run on several threads at once, but the TEE context must not be made or
//     finalised (Initialize, InitTeeContext, FinishTeeContext) while a request runs.
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

// What TivasVerifyAuthorization returns. The caller sets parameters_verified (may be null) to a
// set that is null with length 0; its content is filled, the pointer stays.
struct TsVerificationToken {
  uint64_t challenge;                              // as the TA returned it
  uint64_t timestamp;                              // milliseconds, of the TA's clock
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
  int32_t Initialize(KmVersion version);
  // InitTeeContext makes the process-wide TEE context, replacing one that exists.
  int32_t InitTeeContext();
  // FinishTeeContext finalises the TEE context; 0xFFFF0006 when there is none.
  int32_t FinishTeeContext();
  // TivasKmConfigure sends KM_TAG_OS_VERSION and KM_TAG_OS_PATCHLEVEL of params to the TA; -38
  // when either is missing, -32 for a null set or array.
  int32_t TivasKmConfigure(const keymaster_key_param_set_t* params);
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
  // imported; all others are made by the TA. characteristics may be null. After a failed
  // decoding of the characteristics key_blob is empty.
  int32_t TivasKmGenerateKey(const keymaster_key_param_set_t* params,
                             keymaster_key_blob_t* key_blob,
                             keymaster_key_characteristics_t* characteristics);
  // TivasKmImportKey imports PKCS#8 (RSA, EC) or raw key bytes; -17 for any other format and for
  // PKCS#8 that does not decode. characteristics may be null.
  int32_t TivasKmImportKey(const keymaster_key_param_set_t* params, keymaster_key_format_t format,
                           const keymaster_blob_t* key_data, keymaster_key_blob_t* key_blob,
                           keymaster_key_characteristics_t* characteristics);
  // TivasKmExportKey returns the public key as a DER SubjectPublicKeyInfo; only
  // KM_KEY_FORMAT_X509. client_id and app_data may be null.
  int32_t TivasKmExportKey(keymaster_key_format_t format, const keymaster_key_blob_t* key,
                           const keymaster_blob_t* client_id, const keymaster_blob_t* app_data,
                           keymaster_blob_t* output);
  // TivasKmGetKeyCharacteristics returns what the TA and the system enforce for a key. client_id
  // and app_data may be null.
  int32_t TivasKmGetKeyCharacteristics(const keymaster_key_blob_t* key,
                                       const keymaster_blob_t* client_id,
                                       const keymaster_blob_t* app_data,
                                       keymaster_key_characteristics_t* characteristics);
  // TivasKmUpgradeKey has the TA wrap a key anew under the current system version. A key that
  // needs no upgrade gives 0 and leaves upgraded_key as it was.
  int32_t TivasKmUpgradeKey(const keymaster_key_blob_t* key_to_upgrade,
                            const keymaster_key_param_set_t* upgrade_params,
                            keymaster_key_blob_t* upgraded_key);
  // TivasKmDeletekey deletes a key; -100 for a null key.
  int32_t TivasKmDeletekey(const keymaster_key_blob_t* key);
  // TivasKmAttestKey returns the certificate chain of a key, leaf first as the TA wrote it; -100
  // when device-unique attestation is asked for. After a TA failure chain is untouched; after a
  // reply that does not decode it is empty.
  int32_t TivasKmAttestKey(const keymaster_key_blob_t* key,
                           const keymaster_key_param_set_t* attest_params,
                           keymaster_cert_chain_t* chain);

  // ---- Operations

  // TivasKmBegin starts an operation and returns its handle. in_params and out_params may be
  // null; out_params is cleared first. -41 for a null op_handle.
  int32_t TivasKmBegin(keymaster_purpose_t purpose, const keymaster_key_blob_t* key,
                       const keymaster_key_param_set_t* in_params,
                       keymaster_key_param_set_t* out_params, unsigned long* op_handle);
  // TivasKmUpdate feeds input of up to 2^32 - 17 bytes; all of it is consumed. A null input sends
  // the associated data of in_params alone, and then input_consumed is not written. in_params,
  // out_params and output may be null; both outputs are cleared first.
  int32_t TivasKmUpdate(unsigned long op_handle, const keymaster_key_param_set_t* in_params,
                        const keymaster_blob_t* input, unsigned long* input_consumed,
                        keymaster_key_param_set_t* out_params, keymaster_blob_t* output);
  // TivasKmFinish ends an operation with up to 4096 bytes of input (-21 above). Every pointer may
  // be null; both outputs are cleared first.
  int32_t TivasKmFinish(unsigned long op_handle, const keymaster_key_param_set_t* in_params,
                        const keymaster_blob_t* input, const keymaster_blob_t* signature,
                        keymaster_key_param_set_t* out_params, keymaster_blob_t* output);
  // TivasKmFinishNew ends an operation with input of any size: TivasKmFinishLarge above 4032
  // bytes, else TivasKmFinish.
  int32_t TivasKmFinishNew(unsigned long op_handle, const keymaster_key_param_set_t* in_params,
                           const keymaster_blob_t* input, const keymaster_blob_t* signature,
                           keymaster_key_param_set_t* out_params, keymaster_blob_t* output);
  // TivasKmFinishLarge sends all but the last 4032 bytes as an update and the rest as the finish,
  // and joins their outputs; it needs output and fails with -41 when neither produced any. -32
  // for missing input, -21 for input of 4032 bytes or less.
  int32_t TivasKmFinishLarge(unsigned long op_handle, const keymaster_key_param_set_t* in_params,
                             const keymaster_blob_t* input, const keymaster_blob_t* signature,
                             keymaster_key_param_set_t* out_params, keymaster_blob_t* output);
  // TivasKmAbort cancels an operation.
  int32_t TivasKmAbort(unsigned long op_handle);

  // ---- Wrapped key import

  // TivasKmImportWrappedKeyNew imports a key that arrives wrapped for this device. The key
  // description's user secure id becomes password_sid or biometric_sid as its auth token says.
  // characteristics may be null.
  int32_t TivasKmImportWrappedKeyNew(const keymaster_key_blob_t* wrapped_key_data,
                                     const keymaster_key_blob_t* wrapping_key,
                                     const keymaster_key_blob_t* masking_key,
                                     const keymaster_key_param_set_t* unwrapping_params,
                                     unsigned long password_sid, unsigned long biometric_sid,
                                     keymaster_key_blob_t* key_blob,
                                     keymaster_key_characteristics_t* characteristics);
  // TivasKmUnwrappedKey parses a wrapper and decrypts what it holds. key_material receives a
  // malloc buffer of secret bytes that the caller wipes and frees.
  int32_t TivasKmUnwrappedKey(const TKeymasterBlob<keymaster_key_blob_t>* wrapped_key,
                              keymaster_key_blob_t* wrapping_key,
                              keymaster_key_param_set_t* unwrapping_params,
                              keymaster_key_blob_t* masking_key, AuthorizationSet* auth_list,
                              keymaster_key_format_t* key_format, keymaster_blob_t* key_material);
  // DecryptTransitKeyMaterial decrypts the transit key with the given unwrapping parameters, or
  // with the default ones when that set is empty. plain_transit_key as key_material above; a
  // failure wipes and frees what it holds, so it comes empty.
  int32_t DecryptTransitKeyMaterial(keymaster_key_blob_t* wrapping_key,
                                    keymaster_key_param_set_t* unwrapping_params,
                                    TKeymasterBlob<keymaster_key_blob_t>* encrypted_transit_key,
                                    keymaster_blob_t* plain_transit_key);
  // TransitKeyRsaDecrypt is its begin and finish under the wrapping key.
  int32_t TransitKeyRsaDecrypt(keymaster_key_blob_t* wrapping_key,
                               keymaster_key_param_set_t* unwrapping_params,
                               TKeymasterBlob<keymaster_key_blob_t>* encrypted_transit_key,
                               keymaster_blob_t* plain_transit_key);
  // WrappedKeyAesGcmDecrypt imports the transit key and decrypts payload (the encrypted key
  // material followed by the tag) under it. key_material as above.
  int32_t WrappedKeyAesGcmDecrypt(keymaster_blob_t* plain_transit_key,
                                  TKeymasterBlob<keymaster_blob_t>* iv,
                                  TKeymasterBlob<keymaster_blob_t>* key_description,
                                  TKeymasterBlob<keymaster_key_blob_t>* payload,
                                  keymaster_blob_t* key_material);

  // ---- Authorization, device state and HMAC sharing

  // TivasVerifyAuthorization has the TA check an auth token against a challenge and parameters.
  // -30 when the TA's token reply is not 64 bytes long; parameters that it had verified by then
  // are the caller's all the same.
  int32_t TivasVerifyAuthorization(unsigned long challenge,
                                   const keymaster_key_param_set_t* params_to_verify,
                                   const keymaster_blob_t* auth_token,
                                   TsVerificationToken* verification_token);
  // TivasKmEarlyBootEnded tells the TA that early boot is over.
  int32_t TivasKmEarlyBootEnded();
  // TivasKmDeviceLocked tells the TA that the device is locked, and whether to all but a password.
  int32_t TivasKmDeviceLocked(bool password_only);
  // TivasgetHmacSharingParameters fills both buffers, whose sizes are fixed between caller and TA.
  int32_t TivasgetHmacSharingParameters(unsigned char* hmac_out1, unsigned int hmac_out1_len,
                                        unsigned char* hmac_out2, unsigned int hmac_out2_len);
  // TivascomputeSharedHmac agrees on the shared key; sharing_check is cleared first.
  int32_t TivascomputeSharedHmac(unsigned char* sharing_params, unsigned int sharing_params_len,
                                 keymaster_blob_t* sharing_check);

 private:
  uint32_t os_version_;
  uint32_t os_patchlevel_;
  // Reserved: cleared by the constructor, part of the object's size.
  bool flags_[4];
};

}  // namespace keymaster

#endif  // KEYMASTER_TIVAS_CONTEXT_H

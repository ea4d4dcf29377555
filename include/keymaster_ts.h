// The exported free functions of libkeymaster41_ts, under unmangled names.
//
// Conventions, beside those of keymaster_tivas_context.h:
//  1. The marshalling functions return 0, -ENOMEM (-12: memory, copy or size) or -EINVAL (-22:
//     argument), but BuildVerifyAuthInput and ParamsCheck, which return keymaster errors. An output
//     is untouched by a failure, unless said otherwise.
//  2. The Tee* functions return a GlobalPlatform TEE result, 0 for success. They make
//     TEEC_ERROR_GENERIC (0xFFFF0000: an operation could not be cleared or filled),
//     TEEC_ERROR_BAD_PARAMETERS (0xFFFF0006: a required argument is null or empty, or there is no
//     TEE context) and TEEC_ERROR_OUT_OF_MEMORY (0xFFFF000C: no memory for a session) themselves;
//     all other codes come from the TEE or the TA.
//  3. A length behind a pointer goes in as the capacity of the buffer before it and comes back as
//     the length produced, as the TEE reports it: it may be beyond the capacity, and whoever reads
//     the buffer checks. It is untouched by a failure. The buffer may hold anything after one.
//  4. ObtainTaErrorCode needs the TEE client's header and is declared in keymaster_ts_session.h.
#ifndef KEYMASTER_TS_H
#define KEYMASTER_TS_H

#include <hardware/keymaster_defs.h>
#include <stddef.h>
#include <stdint.h>

struct bignum_st;

// KM41_RESULT marks a result that must not be ignored.
#ifdef __cplusplus
#define KM41_RESULT [[nodiscard]]
#else
#define KM41_RESULT
#endif

#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

// KmParamEntry is one key parameter in wire form: tag (4 bytes), zero (4 bytes), value (8 bytes),
// little-endian.
typedef struct KmParamEntry {
  uint8_t bytes[16];  // as they travel
} KmParamEntry;

// KmParams is a growable list of key parameters in wire form. The caller owns the record, the
// record its two arrays. Offsets of byte values count from the start of data.
typedef struct KmParams {
  uint32_t capacity;     // slots in params
  uint32_t len;          // entries in use
  uint32_t data_len;     // bytes in data
  KmParamEntry* params;  // malloc
  uint8_t* data;         // malloc, null while empty
} KmParams;

// CaDfxInfo is one fault event. A text that fills its field need not be terminated.
typedef struct CaDfxInfo {
  uint32_t eventId;  // the event's number
  int32_t cmdId;     // the TA command that failed
  int32_t errCode;   // its result
  uint32_t errLine;  // the line that failed
  char errFunc[32];  // the function that failed
  char caInfo[32];   // this library's text
  char extInfo[32];  // the TA's text
} CaDfxInfo;

#ifdef __cplusplus
extern "C" {
#endif

// ---- Features

// IsGlobalVersion returns false.
bool IsGlobalVersion(void);
// SupportEnhanceKeymaster returns false.
bool SupportEnhanceKeymaster(void);

// ---- Key material

// CheckBnSize returns 0 when the number fits behind the first offset bytes of a buffer of limit
// bytes, else -1; label names it in the message.
KM41_RESULT int CheckBnSize(uint32_t offset, uint32_t limit, const struct bignum_st* number,
                            const char* label);
// GetNidFromKeySize returns libcrypto's curve for an EC key size in bits, 0 for an unknown size.
int GetNidFromKeySize(int key_size);
// GetKeySizeFromNid returns the key size in bits of a curve, 0 for an unknown one.
int GetKeySizeFromNid(int nid);

// ---- Key parameters to bytes

// InitKmParams readies a record, whose content it overwrites, with 16 free slots. -ENOMEM (-12) for
// a null record too.
KM41_RESULT int32_t InitKmParams(KmParams* km_params);
// AddKmParams appends a copy of one parameter. A failure leaves the record's entries as they were.
KM41_RESULT int32_t AddKmParams(KmParams* km_params, const keymaster_key_param_t* param);
// SerializeKmParams joins two lists (first may be null) into a new malloc buffer, which may hold
// secrets that the caller wipes. On success it rebases the offsets of second in place: a pair is
// serialised once. A failure leaves both records as they were.
KM41_RESULT int32_t SerializeKmParams(const KmParams* first, KmParams* second, uint8_t** out,
                                      uint32_t* out_len);
// FreeKmParams wipes and frees the byte values of a record and frees its entries; its counters
// stay. A null record is ignored.
void FreeKmParams(KmParams* km_params);
// BuildKmParams serialises a whole set, key-definition tags first, into a new malloc buffer, which
// may hold secrets that the caller wipes.
KM41_RESULT int32_t BuildKmParams(const keymaster_key_param_set_t* params, uint8_t** out,
                                  uint32_t* out_len);

// ---- Bytes to key parameters

// BuildKeyCharacter decodes a two-list reply of reply_len bytes. On failure, but for null
// arguments and replies of 3 bytes or fewer, both lists are left empty.
KM41_RESULT int32_t BuildKeyCharacter(const uint8_t* reply, uint32_t reply_len,
                                      keymaster_key_characteristics_t* characteristics);
// BuildKeyParamSet decodes a one-list reply into a set, which it overwrites and never releases. On
// failure, but for null arguments and replies of 3 bytes or fewer, the set is null with length 0.
KM41_RESULT int32_t BuildKeyParamSet(keymaster_key_param_set_t* param_set, const uint8_t* reply,
                                     uint32_t reply_len);

// ---- Operation inputs

// BuildFinalInput packs input and signature (each, or its data, may be null: it then has no bytes)
// into a new malloc buffer, which may hold secrets that the caller wipes. -EINVAL (-22) for lengths
// that pass 32 bits.
KM41_RESULT int32_t BuildFinalInput(const keymaster_blob_t* input,
                                    const keymaster_blob_t* signature,
                                    keymaster_blob_t* final_input);
// BuildVerifyAuthInput packs challenge and auth token into a new malloc buffer.
// KM_ERROR_UNEXPECTED_NULL_POINTER (-32), KM_ERROR_MEMORY_ALLOCATION_FAILED (-41), or
// KM_ERROR_UNKNOWN_ERROR (-1000) for a token that cannot be copied.
KM41_RESULT keymaster_error_t BuildVerifyAuthInput(const uint64_t* challenge,
                                                   const keymaster_blob_t* auth_token,
                                                   keymaster_blob_t* verify_input);
// UpdateParamsForSecureid sets the first user secure id of params as the authenticator type of
// its first auth token says: password_sid for 1, biometric_sid for 2. The type is read in the
// device's byte order. A set without either parameter, or with a token too short to tell, stays.
void UpdateParamsForSecureid(keymaster_key_param_set_t* params, uint64_t password_sid,
                             uint64_t biometric_sid);
// ParamsCheck checks the arguments of an update: KM_ERROR_UNEXPECTED_NULL_POINTER (-32) for a null
// input and for one of 2^32 - 16 to 2^32 - 1 bytes, KM_ERROR_OUTPUT_PARAMETER_NULL (-27) for a null
// input_consumed, else 0.
KM41_RESULT keymaster_error_t ParamsCheck(const keymaster_blob_t* input,
                                          const size_t* input_consumed);

// ---- TEE context

// Ts_Initcontext makes the process-wide TEE context, replacing one that exists; on failure there
// is none.
KM41_RESULT uint32_t Ts_Initcontext(void);
// Ts_Finishcontext finalises it; TEEC_ERROR_BAD_PARAMETERS (0xFFFF0006) when there is none.
KM41_RESULT uint32_t Ts_Finishcontext(void);

// ---- TA commands: one command each, on a session of its own

// TeeKmConfigure sends the system version to the TA.
KM41_RESULT uint32_t TeeKmConfigure(uint32_t os_version, uint32_t os_patchlevel);
// TeeGenerateKey has the TA make a key. characteristics may be null; its length is required all the
// same and then comes back as 0.
KM41_RESULT uint32_t TeeGenerateKey(const uint8_t* params, uint32_t params_len, uint8_t* key_blob,
                                    uint32_t* key_blob_len, uint8_t* characteristics,
                                    uint32_t* characteristics_len);
// TeeGetKeyCharacteristics asks for what is enforced for a key. params may be null.
KM41_RESULT uint32_t TeeGetKeyCharacteristics(const uint8_t* params, uint32_t params_len,
                                              const uint8_t* key_material,
                                              uint32_t key_material_size, uint8_t* out,
                                              uint32_t* out_len);
// TeeImportKey has the TA take a key in. import_type: 0 generated in software, 1 the caller's
// import, 2 the import of an unwrapped key; it travels in the first byte of characteristics, and
// not at all when that is null or has no room. characteristics_len comes back as at most 4096.
KM41_RESULT uint32_t TeeImportKey(const uint8_t* params, uint32_t params_len,
                                  const uint8_t* key_data, uint32_t key_data_len, uint8_t* key_blob,
                                  uint32_t* key_blob_len, uint8_t* characteristics,
                                  uint32_t* characteristics_len, uint8_t import_type);
// TeeExportKey asks for a key's public half, as raw numbers. params may be null.
KM41_RESULT uint32_t TeeExportKey(const uint8_t* params, uint32_t params_len,
                                  const uint8_t* key_material, uint32_t key_material_size,
                                  uint8_t* out, uint32_t* out_len);
// TeeAttestKey asks for a key's certificate chain in out.
KM41_RESULT uint32_t TeeAttestKey(const uint8_t* key_material, uint32_t key_material_size,
                                  const uint8_t* params, uint32_t params_len, uint8_t* out,
                                  uint32_t* out_len);
// TeeUpgrade asks for a key's new blob in out; a length of 0 says that it needs none.
KM41_RESULT uint32_t TeeUpgrade(const uint8_t* key_material, uint32_t key_material_size,
                                const uint8_t* params, uint32_t params_len, uint8_t* out,
                                uint32_t* out_len);
// TeeBegin starts an operation. params may be null. purpose is a keymaster_purpose_t.
KM41_RESULT uint32_t TeeBegin(uint32_t purpose, const uint8_t* params, uint32_t params_len,
                              const uint8_t* key_material, uint32_t key_material_size,
                              uint8_t* out_params, uint32_t* out_params_len, uint64_t* op_handle);
// TeeUpdate feeds an operation. params, input and input_len may be null. out_params takes at least
// the 8 bytes of the handle; its length comes back as at most 4096. All input counts as consumed.
KM41_RESULT uint32_t TeeUpdate(uint64_t op_handle, const uint8_t* params, uint32_t params_len,
                               const uint8_t* input, const uint32_t* input_len, uint8_t* out_params,
                               uint32_t* out_params_len, uint8_t* output, uint32_t* output_len);
// TeeFinish is as TeeUpdate, and ends the operation; input travels only when it is not null and not
// empty.
KM41_RESULT uint32_t TeeFinish(uint64_t op_handle, const uint8_t* params, uint32_t params_len,
                               const uint8_t* input, uint32_t input_len, uint8_t* out_params,
                               uint32_t* out_params_len, uint8_t* output, uint32_t* output_len);
// TeeAbort ends an operation.
KM41_RESULT uint32_t TeeAbort(uint64_t op_handle);
// TeeDeleteKey has the TA delete a key.
KM41_RESULT uint32_t TeeDeleteKey(const uint8_t* key_material, uint32_t key_material_size);
// TeeVerifyAuthorization has the TA check an auth token. params, input and input_len may be null.
// out_params travels both ways. out_params_len comes back as at most 4096.
KM41_RESULT uint32_t TeeVerifyAuthorization(const uint8_t* params, uint32_t params_len,
                                            const uint8_t* input, const uint32_t* input_len,
                                            uint8_t* out_params, uint32_t* out_params_len,
                                            uint8_t* token, uint64_t* token_len);
// TeeEarlyBootEnded tells the TA that early boot is over.
KM41_RESULT uint32_t TeeEarlyBootEnded(void);
// TeeDeviceLocked tells the TA that the device is locked. password_only: 0 or 1.
KM41_RESULT uint32_t TeeDeviceLocked(uint32_t password_only);
// TeegetHmacSharingParameters fills both buffers; the lengths produced are not returned.
KM41_RESULT uint32_t TeegetHmacSharingParameters(uint8_t* hmac_out1, uint32_t hmac_out1_len,
                                                 uint8_t* hmac_out2, uint32_t hmac_out2_len);
// TeecomputeSharedHmac asks for the check value of the shared key in sharing_check.
KM41_RESULT uint32_t TeecomputeSharedHmac(const uint8_t* sharing_params,
                                          uint32_t sharing_params_len, uint8_t* sharing_check,
                                          uint32_t* sharing_check_len);
// TeeDestroyAttestationIds opens and closes a session and sends no command.
KM41_RESULT uint32_t TeeDestroyAttestationIds(void);

// ---- Fault events

// QavixKeyMaster reports a failed command: call is its id and its TEE result, info the TA's error
// record of info_len bytes (null and 0 when there is none), of which 1024 at most are accepted.
void QavixKeyMaster(const uint32_t* call, const uint8_t* info, uint32_t info_len);
// ReportDfxServer sends one event; it returns the result of the send, or -1.
KM41_RESULT int ReportDfxServer(const CaDfxInfo* info);
// CheckReportedErrCode returns 1 for the codes that have an event id of their own, else 0.
int CheckReportedErrCode(uint32_t code);
// TeeosLogExceptionArchive is the watchdog's callback for a TEE call that overran.
void TeeosLogExceptionArchive(void* arg);

#ifdef __cplusplus
}
#endif

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#endif  // KEYMASTER_TS_H

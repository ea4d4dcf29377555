// What a HAL service includes: nothing of libcrypto or of the TEE client comes with it.
#include <keymaster_tivas_context.h>
#include <keymaster_ts.h>

#if defined(OPENSSL_TYPES_H) || defined(OPENSSL_BN_H) || defined(OPENSSL_MACROS_H) || \
    defined(OPENSSL_HEADER_BASE_H) || defined(TEEC_PARAM_TYPES) || defined(TEEC_NONE)
#error "a public header brings in libcrypto or the TEE client"
#endif

static_assert(offsetof(TsVerificationToken, timestamp) == 8 &&
                  offsetof(TsVerificationToken, parameters_verified) == 16 &&
                  offsetof(TsVerificationToken, security_level) == 24 &&
                  offsetof(TsVerificationToken, mac) == 28 && sizeof(TsVerificationToken) == 64,
              "the caller's layout");
static_assert(sizeof(keymaster::KeymasterTivasContext) == 12 && sizeof(KmParamEntry) == 16 &&
                  sizeof(KmParams) == 32 && sizeof(CaDfxInfo) == 112,
              "the caller's layout");

// Start-up, configuration, shut-down, and the requests that are answered without the TA.

#include <keymaster/keymaster_configuration.h>

#include "context/reply.h"
#include "keymaster_tivas_context.h"
#include "keymaster_ts.h"
#include "wire/log.h"

using namespace km41;

namespace {

// The two values that configure the TA.
struct SystemVersion {
  uint32_t os_version = 0;
  uint32_t os_patchlevel = 0;
};

// Reads both values from the set; the walk ends as soon as both are found.
bool FindSystemVersion(const keymaster_key_param_set_t& params, SystemVersion* version) {
  bool has_version = false;
  bool has_patchlevel = false;
  for (size_t i = 0; i < params.length && !(has_version && has_patchlevel); ++i) {
    const keymaster_key_param_t& param = params.params[i];
    if (param.tag == KM_TAG_OS_PATCHLEVEL) {
      version->os_patchlevel = param.integer;
      has_patchlevel = true;
    } else if (param.tag == KM_TAG_OS_VERSION) {
      version->os_version = param.integer;
      has_version = true;
    }
  }
  return has_version && has_patchlevel;
}

int32_t RejectConfiguration() {
  KM_LOGE("%s : Configuration parameters must contain OS version and patch level", kLogFailure);
  return KM_ERROR_INVALID_ARGUMENT;
}

}  // namespace

bool IsGlobalVersion() { return false; }

bool SupportEnhanceKeymaster() { return false; }

namespace keymaster {

KeymasterTivasContext::KeymasterTivasContext() : os_version_(0), os_patchlevel_(0), flags_{} {}

KeymasterTivasContext::~KeymasterTivasContext() = default;

int32_t KeymasterTivasContext::Initialize(KmVersion version) {
  KM_LOGE("Initializing TsKeymaster as KmVersion: %d", static_cast<int>(version));
  int32_t result = InitTeeContext();
  if (result != 0) {
    KM_LOGE("Failed to connect to  keymaster TA");
    return result;
  }
  keymaster_key_param_t params[2] = {};
  KM_LOGE("Start call system api to get OS version\n");
  params[0].tag = KM_TAG_OS_VERSION;
  params[0].integer = GetOsVersion();
  KM_LOGE("os version is %u\n", params[0].integer);
  KM_LOGE("Start call system api to get patch lever\n");
  params[1].tag = KM_TAG_OS_PATCHLEVEL;
  params[1].integer = GetOsPatchlevel();
  KM_LOGE("os patchlevel is %u\n", params[1].integer);

  const keymaster_key_param_set_t configuration = {params, 2};
  result = TivasKmConfigure(&configuration);
  if (result != 0) KM_LOGE("call keymaster configure api failed, ret=%d\n", result);
  return result;
}

int32_t KeymasterTivasContext::InitTeeContext() { return static_cast<int32_t>(Ts_Initcontext()); }

int32_t KeymasterTivasContext::FinishTeeContext() {
  return static_cast<int32_t>(Ts_Finishcontext());
}

int32_t KeymasterTivasContext::TivasKmConfigure(const keymaster_key_param_set_t* params) {
  KM_LOGE("KmConfigure start");
  if (params == nullptr) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  if (params->length == 0) return RejectConfiguration();
  if (params->params == nullptr) return KM_ERROR_UNEXPECTED_NULL_POINTER;
  SystemVersion version;
  if (!FindSystemVersion(*params, &version)) return RejectConfiguration();
  const uint32_t result = TeeKmConfigure(version.os_version, version.os_patchlevel);
  if (result != 0) return ReportFailure("%s : TeeKmConfigure failed, ret=0x%x", result);
  KM_LOGE("KmConfigure success");
  return KM_ERROR_OK;
}

int32_t KeymasterTivasContext::SetSystemVersion(unsigned int os_version,
                                                unsigned int os_patchlevel) {
  os_version_ = os_version;
  os_patchlevel_ = os_patchlevel;
  return KM_ERROR_OK;
}

void KeymasterTivasContext::GetSystemVersion(unsigned int* os_version,
                                             unsigned int* os_patchlevel) {
  if (os_version == nullptr || os_patchlevel == nullptr) {
    KM_LOGI("os_version or os_patchlevel is NULL");
    return;
  }
  *os_version = os_version_;
  *os_patchlevel = os_patchlevel_;
  KM_LOGE("debug  GetSystemVersion\n");
}

int32_t KeymasterTivasContext::TivasKmAddRngEntropy(const unsigned char* /*data*/,
                                                    unsigned long /*length*/) {
  return KM_ERROR_OK;
}

int32_t KeymasterTivasContext::TivasKmDeleteAllKeys() { return KM_ERROR_OK; }

int32_t KeymasterTivasContext::TivasKmDestroyAttestationIds() {
  KM_LOGI("km_destroy_identifiers start");
  KM_LOGI("km_destroy_identifiers success");
  return KM_ERROR_OK;
}

}  // namespace keymaster

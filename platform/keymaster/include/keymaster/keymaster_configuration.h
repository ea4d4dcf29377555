// The system version that keys are bound to.
#ifndef KEYMASTER_KEYMASTER_CONFIGURATION_H
#define KEYMASTER_KEYMASTER_CONFIGURATION_H

#include <stdint.h>

namespace keymaster {

// The OS version as MMmmss in decimal digits (110000 for 11.0.0). On the host the environment
// variable KEYMASTER_OS_VERSION replaces the built-in value.
__attribute__((visibility("default"))) uint32_t GetOsVersion();
// The OS patch level as YYYYMM. On the host KEYMASTER_OS_PATCHLEVEL replaces the built-in value.
__attribute__((visibility("default"))) uint32_t GetOsPatchlevel();

}  // namespace keymaster

#endif  // KEYMASTER_KEYMASTER_CONFIGURATION_H

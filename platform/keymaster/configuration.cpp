#include <errno.h>
#include <keymaster/keymaster_configuration.h>
#include <stdlib.h>

namespace keymaster {
namespace {

// A value that is not a plain decimal number of 32 bits counts as not set.
uint32_t NumberFromEnvironment(const char* name, uint32_t fallback) {
  const char* text = getenv(name);
  if (text == nullptr || *text < '0' || *text > '9') return fallback;
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = strtoull(text, &end, 10);
  return errno == 0 && *end == '\0' && value <= UINT32_MAX ? static_cast<uint32_t>(value)
                                                           : fallback;
}

}  // namespace

uint32_t GetOsVersion() { return NumberFromEnvironment("KEYMASTER_OS_VERSION", 110000); }

uint32_t GetOsPatchlevel() { return NumberFromEnvironment("KEYMASTER_OS_PATCHLEVEL", 202101); }

}  // namespace keymaster

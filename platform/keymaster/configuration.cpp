#include <keymaster/keymaster_configuration.h>
#include <stdlib.h>

#include <charconv>
#include <string_view>
#include <system_error>

namespace keymaster {
namespace {

// A value that is not a plain decimal number of 32 bits counts as not set.
uint32_t NumberFromEnvironment(const char* name, uint32_t fallback) {
  const char* variable = getenv(name);
  const std::string_view text = variable == nullptr ? "" : variable;
  uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() ? value : fallback;
}

}  // namespace

uint32_t GetOsVersion() { return NumberFromEnvironment("KEYMASTER_OS_VERSION", 110000); }

uint32_t GetOsPatchlevel() { return NumberFromEnvironment("KEYMASTER_OS_PATCHLEVEL", 202101); }

}  // namespace keymaster

// The characteristics reply: two lists, and byte values in an area behind them.
#include <keymaster_ts.h>

#include "fuzz/input.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  keymaster_key_characteristics_t characteristics = {};
  const int32_t result = BuildKeyCharacter(data, static_cast<uint32_t>(size), &characteristics);
  if (result != 0) {
    fuzz::Check(
        fuzz::IsEmpty(characteristics.hw_enforced) && fuzz::IsEmpty(characteristics.sw_enforced),
        "a failure leaves both lists empty");
  }
  fuzz::Release(&characteristics);
  return 0;
}

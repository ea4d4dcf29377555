// The parameter-set reply of operations: one list, and byte values in an area behind it.
#include <keymaster_ts.h>

#include "fuzz/input.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  keymaster_key_param_set_t set = {};
  const int32_t result = BuildKeyParamSet(&set, data, static_cast<uint32_t>(size));
  if (result != 0) fuzz::Check(fuzz::IsEmpty(set), "a failure leaves the set empty");
  fuzz::Release(&set);
  return 0;
}

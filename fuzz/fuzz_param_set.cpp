// The parameter-set reply of operations: one list, and byte values in an area behind it.
#include <keymaster_ts.h>

#include "fuzz/serve.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  test::Outputs outputs;
  outputs.params = {};
  const int32_t result = BuildKeyParamSet(&outputs.params, data, static_cast<uint32_t>(size));
  fuzz::Judge(&outputs, test::kParams, result);
  return 0;
}

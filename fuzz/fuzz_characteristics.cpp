// The characteristics reply: two lists, and byte values in an area behind them.
#include <keymaster_ts.h>

#include "fuzz/serve.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  test::Outputs outputs;
  outputs.characteristics = {};
  const int32_t result =
      BuildKeyCharacter(data, static_cast<uint32_t>(size), &outputs.characteristics);
  fuzz::Judge(&outputs, test::kCharacteristics, result);
  return 0;
}

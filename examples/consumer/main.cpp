// The least that shows an installed keymaster41_ts to be usable: connects, and makes a key.
#include <keymaster41_ts/keymaster_tivas_context.h>
#include <stdio.h>
#include <stdlib.h>

int main() {
  keymaster::KeymasterTivasContext context;
  if (context.Initialize(keymaster::KmVersion::KEYMASTER_4_1) != 0) return 1;
  keymaster_key_param_t params[] = {{KM_TAG_ALGORITHM, {KM_ALGORITHM_EC}},
                                    {KM_TAG_KEY_SIZE, {256}}};
  const keymaster_key_param_set_t description = {params, 2};
  keymaster_key_blob_t key = {};
  const int32_t result = context.TivasKmGenerateKey(&description, &key, nullptr);
  printf("result 0x%x, a key of %zu bytes\n", static_cast<unsigned>(result), key.key_material_size);
  free(const_cast<uint8_t*>(key.key_material));
  return context.FinishTeeContext() == 0 && result == 0 ? 0 : 1;
}

// PKCS#8 import: what libcrypto makes of hostile DER, and the key material it becomes.
#include <keymaster_tivas_context.h>
#include <openssl/err.h>

#include "fuzz/scripted_tee.h"

namespace {

using fuzz::Check;

constexpr uint32_t kImportKey = 4;
constexpr size_t kCapacity = 4096;

// Key material is its header and as many bytes as the header's lengths add up to. The headers: RSA
// is form (1 or 2), n, n, e and up to five lengths more; EC is key size, point form, x, y, scalar.
bool AddsUp(const uint8_t* bytes, size_t size) {
  fuzz::Input input(bytes, size);
  std::vector<uint32_t> field;
  while (!input.empty() && field.size() < 9) field.push_back(input.U32());
  const auto sum = [&](size_t first, size_t last) {
    uint64_t total = 4 * last;
    for (size_t i = first; i < last; ++i) total += field[i];
    return total == size;
  };
  const bool rsa = field.size() == 9 && (field[0] == 1 || field[0] == 2);
  return rsa ? field[1] == field[2] && sum(2, 9) : field.size() >= 5 && sum(2, 5);
}

TEEC_Result Import(uint32_t command, TEEC_Operation* operation) {
  Check(command == kImportKey, "an import is one command");
  const TEEC_TempMemoryReference& material = operation->params[1].tmpref;
  Check(material.size <= kCapacity, "key material has its limit");
  Check(AddsUp(static_cast<const uint8_t*>(material.buffer), material.size),
        "the lengths in the header are those of the material");
  fuzz::Write({1, 2, 3}, &operation->params[2].tmpref);
  fuzz::Write({0, 0, 0, 0, 0, 0, 0, 0}, &operation->params[3].tmpref);
  return TEEC_SUCCESS;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::EnsureTeeContext();
  fuzz::tee().invoke = Import;
  static keymaster::KeymasterTivasContext km;
  const keymaster_key_param_set_t params = {};
  const keymaster_blob_t pkcs8 = {data, size};
  keymaster_key_blob_t key = {};
  keymaster_key_characteristics_t characteristics = {};
  const int32_t result =
      km.TivasKmImportKey(&params, KM_KEY_FORMAT_PKCS8, &pkcs8, &key, &characteristics);
  Check(result == 0 || result == KM_ERROR_UNSUPPORTED_KEY_FORMAT, "a key, or not");
  Check((key.key_material_size == 3) == (result == 0), "the TA's blob comes with a success");
  fuzz::Release(&key);
  fuzz::Release(&characteristics);
  ERR_clear_error();
  return 0;
}

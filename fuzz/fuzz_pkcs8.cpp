// PKCS#8 import: what libcrypto makes of hostile DER, and the key material it becomes.
#include "fuzz/serve.h"
#include "wire/ta_protocol.h"

namespace {

using fuzz::Bytes;
using fuzz::Check;

const Bytes kKeyBlob = {1, 2, 3};

// Key material is its header and as many bytes as the header's lengths add up to. The headers: RSA
// is form (1 or 2), n, n, e and up to five lengths more; EC is key size, point form, x, y, scalar.
bool AddsUp(const uint8_t* bytes, size_t size) {
  fuzz::Input input(bytes, size);
  std::vector<uint32_t> field;
  while (!input.empty() && field.size() < km41::kRsaMaterialHeader / 4) {
    field.push_back(input.U32());
  }
  const auto sum = [&](size_t first, size_t last) {
    uint64_t total = 4 * last;
    for (size_t i = first; i < last; ++i) {
      total += field[i];
    }
    return total == size;
  };
  const bool rsa = field.size() == 9 && (field[0] == 1 || field[0] == 2);
  return rsa ? field[1] == field[2] && sum(2, 9) : field.size() >= 5 && sum(2, 5);
}

TEEC_Result Import(uint32_t command, TEEC_Operation* operation) {
  Check(command == km41::kCmdImportKey, "an import is one command");
  const TEEC_TempMemoryReference& material = operation->params[1].tmpref;
  Check(material.size <= km41::kKeyMaterialCapacity, "key material has its limit");
  Check(AddsUp(static_cast<const uint8_t*>(material.buffer), material.size),
        "the lengths in the header are those of the material");
  fuzz::Write(kKeyBlob, &operation->params[2].tmpref);
  fuzz::Write(test::TwoLists({}, {}), &operation->params[3].tmpref);
  return TEEC_SUCCESS;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::EnsureTeeContext();
  fuzz::tee().invoke = Import;
  const keymaster_blob_t pkcs8 = {data, size};
  fuzz::Serve(
      test::FindRequest("ImportRsa"), [&](test::Args* args) { args->input = &pkcs8; },
      [](int32_t result, const test::Args& args) {
        Check(result == 0 || result == KM_ERROR_UNSUPPORTED_KEY_FORMAT, "a key, or not");
        Check(result != 0 || test::BlobBytes(*args.key_blob) == kKeyBlob, "the key is the TA's");
      });
  return 0;
}

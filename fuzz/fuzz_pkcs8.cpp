// PKCS#8 import: what libcrypto makes of hostile DER, and the key material it becomes.
#include "fuzz/serve.h"
#include "wire/ta_protocol.h"

namespace {

using fuzz::Bytes;
using fuzz::Check;

const Bytes kKeyBlob = {1, 2, 3};

// Key material is its header and as many bytes as the header's lengths add up to. The headers: RSA
// is form (1 or 2), n, n, e and up to five lengths more; EC is key size, point form, x, y, scalar.
bool AddsUp(const Bytes& material) {
  fuzz::Input input(material.data(), material.size());
  std::vector<uint32_t> field;
  while (!input.empty() && field.size() < km41::kRsaMaterialHeader / 4) {
    field.push_back(input.U32());
  }
  const auto sum = [&](size_t first, size_t last) {
    uint64_t total = 4 * last;
    for (size_t i = first; i < last; ++i) {
      total += field[i];
    }
    return total == material.size();
  };
  const bool rsa = field.size() == 9 && (field[0] == 1 || field[0] == 2);
  return rsa ? field[1] == field[2] && sum(2, 9) : field.size() >= 5 && sum(2, 5);
}

fuzz::Reply Import(const test::Invocation& invocation) {
  Check(invocation.command == km41::kCmdImportKey, "an import is one command");
  const Bytes& material = invocation.params[1].in;
  Check(material.size() <= km41::kKeyMaterialCapacity, "key material has its limit");
  Check(AddsUp(material), "the lengths in the header are those of the material");
  return fuzz::Reply::Ok().Out(2, kKeyBlob).Out(3, test::TwoLists({}, {}));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::EnsureTeeContext();
  fuzz::platform().any = Import;
  const keymaster_blob_t pkcs8 = {data, size};
  fuzz::Serve(
      test::FindRequest("ImportRsa"), [&](test::Args* args) { args->input = &pkcs8; },
      [](int32_t result, const test::Args& args) {
        Check(result == 0 || result == KM_ERROR_UNSUPPORTED_KEY_FORMAT, "a key, or not");
        Check(result != 0 || test::BlobBytes(*args.key_blob) == kKeyBlob, "the key is the TA's");
      });
  return 0;
}

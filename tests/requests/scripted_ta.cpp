// The well-behaved TA of the requests: it answers what they expect, and refuses what none of them
// sends.
#include <algorithm>

#include "tests/platform/keys.h"
#include "tests/requests/requests.h"
#include "tests/requests/wire.h"

namespace test {
namespace {

Bytes InputOf(const TEEC_Operation& operation, unsigned index) {
  const uint32_t type = TEEC_PARAM_TYPE_GET(operation.paramTypes, index);
  const TEEC_TempMemoryReference& ref = operation.params[index].tmpref;
  if ((type != TEEC_MEMREF_TEMP_INPUT && type != TEEC_MEMREF_TEMP_INOUT) || ref.buffer == nullptr) {
    return {};
  }
  const auto* bytes = static_cast<const uint8_t*>(ref.buffer);
  return Bytes(bytes, bytes + ref.size);
}

bool Holds(const Bytes& bytes, const Bytes& part) {
  return std::search(bytes.begin(), bytes.end(), part.begin(), part.end()) != bytes.end();
}
bool HoldsTag(const Bytes& list, uint32_t tag) { return Holds(list, Le32(tag)); }

// The import of an unwrapped key is known by the wrapper's auth token, that of a generated one by
// the exponent that was asked for.
bool AcceptsImport(const Bytes& params, const Bytes& characteristics) {
  const uint8_t other = HoldsTag(params, KM_TAG_RSA_PUBLIC_EXPONENT) ? 0 : 1;
  const uint8_t source = HoldsTag(params, KM_TAG_AUTH_TOKEN) ? 2 : other;
  return !characteristics.empty() && characteristics[0] == source;
}

const Bytes& Secret(const char* label) { return fixture().secrets.at(label); }

Bytes EcPublicKey() {
  const auto numbers = NumbersOf(ReadPkcs8(BlobBytes(fixture().ec_pkcs8.blob)).get());
  return PublicKey(KM_ALGORITHM_EC, 256, numbers.at("x"), numbers.at("y"));
}

using Written = std::map<unsigned, Bytes>;

std::map<uint32_t, Written> MakeUsualOutputs() {
  using namespace km41;
  const Bytes blob = BlobBytes(fixture().blob.blob);
  const Bytes characteristics =
      TwoLists({{KM_TAG_PURPOSE, KM_PURPOSE_WRAP_KEY}, {KM_TAG_APPLICATION_ID, Text("appd")}},
               {{KM_TAG_CREATION_DATETIME, 9}, {KM_TAG_APPLICATION_DATA, Text("ata")}});
  const Bytes params = OneList({{KM_TAG_NONCE, Ramp(40, 12)}, {KM_TAG_MAC_LENGTH, 128}});
  return {{kCmdGenerateKey, {{2, blob}, {3, characteristics}}},
          {kCmdGetKeyCharacteristics, {{2, characteristics}}},
          {kCmdImportKey, {{2, blob}, {3, characteristics}}},
          {kCmdExportKey, {{2, PublicKey(KM_ALGORITHM_RSA, 0, Ramp(129, 64), {1, 0, 1})}}},
          {kCmdAttestKey, {{2, CertificateChain({Text("abc"), Text("defgh")})}}},
          {kCmdUpgrade, {{2, blob}}},
          {kCmdBegin, {{2, params}}},
          {kCmdUpdate, {{2, params}, {3, Secret("update output")}}},
          {kCmdFinish, {{2, params}, {3, Secret("finish output, unwrapped key")}}},
          {kCmdVerifyAuthorization, {{2, params}, {3, VerificationToken(5, 1000, 1, Ramp(1, 32))}}},
          {kCmdGetHmacSharingParameters, {{0, Ramp(1, 32)}, {1, Ramp(2, 32)}}},
          {kCmdComputeSharedHmac, {{1, Ramp(3, 32)}}},
          {kCmdGetErrorRecord, {{0, ErrorRecord(7, 120, 8, Text("FuncName"))}}}};
}

// What a command's answer writes where.
Written OutputsOf(uint32_t command, const TEEC_Operation& operation) {
  static const std::map<uint32_t, Written> usual = MakeUsualOutputs();
  static const Bytes ec_public = EcPublicKey();
  static const Bytes pkcs8_description = Wrapper(KM_KEY_FORMAT_PKCS8).Description();
  const Bytes first = InputOf(operation, 0);
  if (command == km41::kCmdExportKey && first == BlobBytes(fixture().ec_blob.blob)) {
    return {{2, ec_public}};
  }
  // Only the decryption of a transit key sends no parameters.
  if (command == km41::kCmdFinish && first.empty()) {
    return {{2, usual.at(command).at(2)}, {3, Secret("masked transit key")}};
  }
  if (command == km41::kCmdFinish && Holds(first, pkcs8_description)) {
    return {{2, usual.at(command).at(2)}, {3, BlobBytes(fixture().ec_pkcs8.blob)}};
  }
  const auto found = usual.find(command);
  return found == usual.end() ? Written() : found->second;
}

// A GCM finish carries what a wrapper holds, one part behind the other, and nothing else.
bool AcceptsFinish(const Bytes& params, const Bytes& input) {
  const Wrapper full;
  const auto description = static_cast<uint32_t>(full.Description().size());
  if (!Holds(params, BytesEntry(KM_TAG_ASSOCIATED_DATA, 0, description))) return true;
  for (const Bytes& payload : {Cat({full.material, full.tag}), full.tag, Ramp(77, 1), Ramp(3, 1)}) {
    if (input == FinishInput(payload, {})) return true;
  }
  return false;
}

bool Accepts(uint32_t command, const TEEC_Operation& operation) {
  const Bytes params = InputOf(operation, 0);
  if (command == km41::kCmdImportKey) return AcceptsImport(params, InputOf(operation, 3));
  if (command == km41::kCmdFinish) return AcceptsFinish(params, InputOf(operation, 1));
  return true;
}

}  // namespace

Reply AnswerTo(uint32_t command, const TEEC_Operation& operation) {
  Reply reply;
  reply.result = Accepts(command, operation) ? TEEC_SUCCESS : 0xF00D0002;  // no code of the TEE's
  reply.outputs = OutputsOf(command, operation);
  if (command == km41::kCmdBegin) reply.Value(3, 0x11223344, 0x55667788);
  return reply;
}

}  // namespace test

#include "tests/requests/requests.h"

namespace test {
namespace {

constexpr States U = kUntouched, E = kEmpty, W = kWhole;

// clang-format off
const std::vector<Contract> kContracts = {
    //                                                    success prepare tee  reply 1  2    copying
    {"TivasKmGenerateKey",           kKeyBlob,            W,      U,      U,    U,     E,    U|E},
    {"TivasKmGenerateKey",           kCharacteristics,    W|E,    U,      U,    U,     U|E,  U|E},
    {"TivasKmImportKey",             kKeyBlob,            W,      U,      U,    U,     E,    U|E},
    {"TivasKmImportKey",             kCharacteristics,    W|E,    U,      U,    U,     U|E,  U|E},
    {"TivasKmImportWrappedKeyNew",   kKeyBlob,            W,      U,      U,    U,     E,    U|E},
    {"TivasKmImportWrappedKeyNew",   kCharacteristics,    W|E,    U,      U,    U,     U|E,  U|E},
    {"TivasKmExportKey",             kData,               W,      E,      E,    E,     0,    E},
    {"TivasKmGetKeyCharacteristics", kCharacteristics,    W|E,    U,      U,    E,     0,    E},
    // An empty reply means that no upgrade is needed.
    {"TivasKmUpgradeKey",            kKeyBlob,            W|U,    U,      U,    U,     0,    U},
    // Untouched only when it cannot even be cleared.
    {"TivasKmAttestKey",             kChain,              W,      U,      U,    E,     0,    U|E},
    {"TivasKmBegin",                 kParams,             W|E,    E,      E,    E,     0,    E},
    {"TivasKmBegin",                 kNumbers,            W,      U,      U,    U,     0,    U},
    {"TivasKmUpdate",                kParams,             W|E,    E,      E,    E,     E,    E},
    {"TivasKmUpdate",                kData,               W|E,    E,      E,    E,     E,    E},
    {"TivasKmUpdate",                kNumbers,            W|U,    U,      U,    U,     U,    U},
    {"TivasKmFinish",                kParams,             W|E,    E,      E,    E,     E,    E},
    {"TivasKmFinish",                kData,               W|E,    E,      E,    E,     E,    E},
    {"TivasKmFinishNew",             kParams,             W|E,    E,      E,    E,     E,    E},
    {"TivasKmFinishNew",             kData,               W|E,    E,      E,    E,     E,    E},
    {"TivasKmFinishLarge",           kParams,             W|E,    E,      E,    E,     E,    E},
    {"TivasKmFinishLarge",           kData,               W,      E,      E,    E,     E,    E},
    // The three steps that end in a finish leave their output alone until that clears it.
    {"TivasKmUnwrappedKey",          kData,               W|E,    U|E,    U|E,  0,     E,    E},
    {"TransitKeyRsaDecrypt",         kData,               W|E,    U|E,    U|E,  0,     E,    E},
    {"WrappedKeyAesGcmDecrypt",      kData,               W|E,    U|E,    U|E,  0,     E,    E},
    {"DecryptTransitKeyMaterial",    kData,               W|E,    E,      E,    0,     E,    E},
    // The set that the token points at, which begins empty; what was verified stays.
    {"TivasVerifyAuthorization",     kParams,             W|E,    E,      E,    E,     W,    W|E},
    {"TivasVerifyAuthorization",     kNumbers,            W,      U,      U,    U,     U,    U},
    {"TivascomputeSharedHmac",       kData,               W|E,    E,      E,    E,     0,    E},
};
// clang-format on

}  // namespace

const std::vector<Contract>& Contracts() { return kContracts; }

States Allowed(std::string_view method, Output output, States Contract::*failure) {
  for (const Contract& contract : kContracts) {
    if (contract.output == output && contract.method == method) return contract.*failure;
  }
  return kUntouched;
}

}  // namespace test

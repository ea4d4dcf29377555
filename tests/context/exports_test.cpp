// The shared object's face: what it exports, and whom it needs.
#include <ctype.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace test {
namespace {

using Names = std::set<std::string>;

// The methods: class prefix left out; K, S, B and H stand for the keymaster types' names.
constexpr char kMethods[] =
    R"(KeymasterTivasContext(); ~KeymasterTivasContext(); Initialize(keymaster::KmVersion);
InitTeeContext(); FinishTeeContext(); TivasKmConfigure(S const*);
SetSystemVersion(unsigned int, unsigned int); GetSystemVersion(unsigned int*, unsigned int*);
TivasKmAddRngEntropy(unsigned char const*, unsigned long); TivasKmDeleteAllKeys();
TivasKmDestroyAttestationIds(); TivasKmGenerateKey(S const*, K*, H*);
TivasKmImportKey(S const*, keymaster_key_format_t, B const*, K*, H*);
TivasKmExportKey(keymaster_key_format_t, K const*, B const*, B const*, B*);
TivasKmGetKeyCharacteristics(K const*, B const*, B const*, H*);
TivasKmUpgradeKey(K const*, S const*, K*); TivasKmDeletekey(K const*);
TivasKmAttestKey(K const*, S const*, keymaster_cert_chain_t*);
TivasKmBegin(keymaster_purpose_t, K const*, S const*, S*, unsigned long*);
TivasKmUpdate(unsigned long, S const*, B const*, unsigned long*, S*, B*);
TivasKmFinish(unsigned long, S const*, B const*, B const*, S*, B*);
TivasKmFinishNew(unsigned long, S const*, B const*, B const*, S*, B*);
TivasKmFinishLarge(unsigned long, S const*, B const*, B const*, S*, B*);
TivasKmAbort(unsigned long);
TivasKmImportWrappedKeyNew(K const*, K const*, K const*, S const*, unsigned long, unsigned long, K*, H*);
TivasKmUnwrappedKey(keymaster::TKeymasterBlob<K> const*, K*, S*, K*, keymaster::AuthorizationSet*, keymaster_key_format_t*, B*);
DecryptTransitKeyMaterial(K*, S*, keymaster::TKeymasterBlob<K>*, B*);
TransitKeyRsaDecrypt(K*, S*, keymaster::TKeymasterBlob<K>*, B*);
WrappedKeyAesGcmDecrypt(B*, keymaster::TKeymasterBlob<B>*, keymaster::TKeymasterBlob<B>*, keymaster::TKeymasterBlob<K>*, B*);
TivasVerifyAuthorization(unsigned long, S const*, B const*, TsVerificationToken*);
TivasKmEarlyBootEnded(); TivasKmDeviceLocked(bool);
TivasgetHmacSharingParameters(unsigned char*, unsigned int, unsigned char*, unsigned int);
TivascomputeSharedHmac(unsigned char*, unsigned int, B*))";

constexpr char kFunctions[] =
    "IsGlobalVersion SupportEnhanceKeymaster CheckBnSize GetNidFromKeySize GetKeySizeFromNid "
    "InitKmParams AddKmParams SerializeKmParams FreeKmParams BuildKmParams BuildKeyCharacter "
    "BuildKeyParamSet BuildFinalInput BuildVerifyAuthInput UpdateParamsForSecureid ParamsCheck "
    "Ts_Initcontext Ts_Finishcontext TeeKmConfigure TeeGenerateKey TeeGetKeyCharacteristics "
    "TeeImportKey TeeExportKey TeeAttestKey TeeUpgrade TeeBegin TeeUpdate TeeFinish TeeAbort "
    "TeeDeleteKey TeeVerifyAuthorization TeeEarlyBootEnded TeeDeviceLocked "
    "TeegetHmacSharingParameters TeecomputeSharedHmac TeeDestroyAttestationIds ObtainTaErrorCode "
    "QavixKeyMaster ReportDfxServer CheckReportedErrCode TeeosLogExceptionArchive ";

std::string TypeName(char letter) {
  switch (letter) {
    case 'K':
      return "keymaster_key_blob_t";
    case 'S':
      return "keymaster_key_param_set_t";
    case 'B':
      return "keymaster_blob_t";
    default:
      return "keymaster_key_characteristics_t";
  }
}

// Puts the types' names in place of the letters that stand alone.
std::string Expand(const std::string& method) {
  const auto in_word = [&](size_t i) { return i < method.size() && isalnum(method[i]) != 0; };
  std::string out = "keymaster::KeymasterTivasContext::";
  for (size_t i = 0; i < method.size(); ++i) {
    const bool alone = !in_word(i - 1) && !in_word(i + 1);
    out += alone && strchr("KSBH", method[i]) != nullptr ? TypeName(method[i])
                                                         : std::string(1, method[i]);
  }
  return out;
}

// The output of a command on the library, line by line.
Names Lines(const std::string& command) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen((command + " " KM_LIBRARY).c_str(), "r"),
                                                   pclose);
  Names out;
  char line[1024];
  while (fgets(line, sizeof(line), pipe.get()) != nullptr) {
    out.insert(std::string(line, strcspn(line, "\n")));
  }
  return out;
}

TEST(Exports, AreTheListAndNothingElse) {
  Names expected, found;
  std::istringstream methods(kMethods), functions(kFunctions);
  std::string line;
  while (std::getline(methods >> std::ws, line, ';')) expected.insert(Expand(line));
  for (std::string name; functions >> name;) expected.insert(name);
  EXPECT_EQ(34u + 41u, expected.size());
  for (const std::string& symbol : Lines("nm -D -C --defined-only")) {
    EXPECT_EQ(" T ", symbol.substr(16, 3)) << symbol;
    found.insert(symbol.substr(19));
  }
  EXPECT_EQ(expected, found);
}

TEST(Exports, NeedNoCxxRuntime) {
  const Names undefined = Lines("nm -D --undefined-only");
  EXPECT_LT(20u, undefined.size());
  for (const std::string& line : undefined) {
    for (const char* runtime :
         {"_ZS", "_Zn", "_Zd", "__cxa_throw", "__gxx", "_ZTV", "__cxa_guard"}) {
      EXPECT_EQ(std::string::npos, line.find(runtime)) << line;
    }
  }
#ifndef KM_SANITIZED
  for (const std::string& line : Lines("readelf -d")) {
    EXPECT_EQ(std::string::npos, line.find("libstdc++")) << line;
  }
#endif
}

}  // namespace
}  // namespace test

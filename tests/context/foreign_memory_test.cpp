// Wrapped imports on a platform with an allocator of its own: memory goes back to whom it came
// from. The library is built in, against that platform's header.
#include <keymaster/android_keymaster_utils.h>
#include <keymaster/wrapped_key.h>
#include <stdlib.h>

#include <set>

#include "tests/context/request_test.h"

namespace {

constexpr size_t kHeader =
    16;  // before the platform's memory, which malloc therefore never returned
std::set<const uint8_t*> g_live;
int g_failing = 0;  // the copy that fails, from 1
int g_copies = 0;

}  // namespace

namespace keymaster {

uint8_t* dup_buffer(const void* buf, size_t size) {
  if (buf == nullptr || ++g_copies == g_failing) return nullptr;
  auto* memory = static_cast<uint8_t*>(malloc(kHeader + size)) + kHeader;
  memcpy(memory, buf, size);
  g_live.insert(memory);
  return memory;
}

void PlatformRelease(const uint8_t* memory, size_t size) {
  if (memory == nullptr) return;
  if (g_live.erase(memory) == 0) {
    ADD_FAILURE() << "a holder of the platform got " << size << " bytes of another allocator";
    free(const_cast<uint8_t*>(memory));
    return;
  }
  free(const_cast<uint8_t*>(memory) - kHeader);
}

// All wrappers hold the same.
keymaster_error_t parse_wrapped_key(const TKeymasterBlob<keymaster_key_blob_t>& wrapped_key,
                                    TKeymasterBlob<keymaster_blob_t>* iv,
                                    TKeymasterBlob<keymaster_key_blob_t>* transit_key,
                                    TKeymasterBlob<keymaster_key_blob_t>* secure_key,
                                    TKeymasterBlob<keymaster_blob_t>* tag, AuthorizationSet*,
                                    keymaster_key_format_t* key_format,
                                    TKeymasterBlob<keymaster_blob_t>* wrapped_key_description) {
  if (wrapped_key.key_material == nullptr) return KM_ERROR_INVALID_ARGUMENT;
  const auto fill = [](auto* blob, size_t size) {
    BlobData(*blob) = dup_buffer(test::Ramp(1, size).data(), size);
    BlobSize(*blob) = BlobData(*blob) == nullptr ? 0 : size;
    return BlobData(*blob) != nullptr;
  };
  *key_format = KM_KEY_FORMAT_RAW;
  return fill(iv, 12) && fill(transit_key, 256) && fill(secure_key, 32) && fill(tag, 16) &&
                 fill(wrapped_key_description, 20)
             ? KM_ERROR_OK
             : KM_ERROR_MEMORY_ALLOCATION_FAILED;
}

}  // namespace keymaster

namespace test {
namespace {

struct ForeignMemory : KeymasterTest {
  void SetUp() override {
    KeymasterTest::SetUp();
    const Reply key = Reply::Ok().Out(2, {7}).Out(3, Bytes(8));
    platform().On(kCmdGetKeyCharacteristics, [](const Invocation&) {
      return Reply::Ok().Out(2, TwoLists({{KM_TAG_PURPOSE, KM_PURPOSE_WRAP_KEY}}, {}));
    });
    platform().On(kCmdImportKey, [key](const Invocation&) { return key; });
    platform().On(kCmdFinish, [](const Invocation&) { return Reply::Ok().Out(3, Bytes(32)); });
  }
  int32_t Import() {
    const Bytes any(32);
    const keymaster_key_blob_t blob = KeyBlob(any);
    keymaster_key_blob_t out = {};
    g_copies = 0;
    const int32_t result =
        km.TivasKmImportWrappedKeyNew(&blob, &blob, &blob, &kEmptySet, 1, 2, &out, nullptr);
    free(const_cast<uint8_t*>(out.key_material));
    return result;
  }
  void TearDown() override {
    EXPECT_EQ(0u, g_live.size()) << "the platform's memory leaked";
    KeymasterTest::TearDown();
  }
  keymaster::KeymasterTivasContext km;
};

TEST_F(ForeignMemory, GoesBackToWhomItCameFrom) {
  EXPECT_EQ(0, Import());
  EXPECT_LT(5, g_copies) << "made by the platform";
}

TEST_F(ForeignMemory, GoesBackAfterEachFailure) {
  Import();
  const int copies = g_copies;
  for (g_failing = 1; g_failing <= copies; ++g_failing) {
    EXPECT_NE(0, Import()) << g_failing;
    EXPECT_EQ(0u, g_live.size()) << g_failing;
  }
  g_failing = 0;
  for (int nth = 1; nth <= 7; ++nth) {
    FailCall(Call::kInvoke, nth);
    EXPECT_EQ(kInjectedTeeError, static_cast<uint32_t>(Import()));
    EXPECT_EQ(0u, g_live.size()) << nth;
  }
}

}  // namespace
}  // namespace test

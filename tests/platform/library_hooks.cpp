#include "tests/platform/library_hooks.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <link.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <initializer_list>
#include <map>
#include <mutex>
#include <utility>

#include "tests/platform/doubles.h"
#include "tests/platform/faults.h"
#include "tests/platform/keys.h"

namespace test {
namespace {

using Word = uintptr_t;

using Names = std::initializer_list<const char*>;
// The calls into libcrypto that fail with null or 0. All take at most six words and return one.
constexpr Names kCrypto = {
    "RSA_generate_key_ex",
    "RSA_new",
    "RSA_set0_key",
    "BN_new",
    "BN_bin2bn",
    "BN_set_word",
    "EVP_PKEY_new",
    "EVP_PKEY_assign",
    "EVP_PKEY_assign_RSA",
    "EVP_PKEY_set1_EC_KEY",
    "EVP_PKEY_get1_RSA",
    "EVP_PKEY_get1_EC_KEY",
    "EVP_PKCS82PKEY",
    "EC_KEY_new_by_curve_name",
    "EC_KEY_set_public_key_affine_coordinates",
    "d2i_PKCS8_PRIV_KEY_INFO",
    "EC_POINT_get_affine_coordinates_GFp",
    "i2d_PUBKEY",
    "_ZN9keymaster10dup_bufferEPKvm"};  // no part of it, and allocates as unseen
// Those that cannot.
constexpr Names kInfallible = {"BN_bn2bin",
                               "BN_free",
                               "BN_num_bits",
                               "BN_num_bytes",
                               "EC_GROUP_get_curve_name",
                               "EC_KEY_free",
                               "EC_KEY_get0_group",
                               "EC_KEY_get0_private_key",
                               "EC_KEY_get0_public_key",
                               "EC_KEY_get_conv_form",
                               "EC_KEY_set_conv_form",
                               "EVP_PKEY_free",
                               "EVP_PKEY_get_id",
                               "EVP_PKEY_id",
                               "PKCS8_PRIV_KEY_INFO_free",
                               "RSA_free",
                               "RSA_get0_crt_params",
                               "RSA_get0_factors",
                               "RSA_get0_key"};
// What would escape the count of allocations.
constexpr Names kUnwanted = {"calloc",        "realloc",        "strdup", "strndup",
                             "aligned_alloc", "posix_memalign", "_Znwm",  "_Znam"};
constexpr size_t kGenerateRsa = 0;
constexpr size_t kPiece = 16;

// Behind each block stands what must be neither read nor written. To who reads one entry beyond an
// array of parameters it is one whose bytes must be found, or the purpose that he looks for. ASan
// has guards of its own.
using Guard = std::array<uint64_t, 3>;
constexpr Guard kBytesGuard = {static_cast<uint32_t>(KM_TAG_AUTH_TOKEN), 0x5AFE5AFE5AFE5AFE,
                               0x5AFE5AFE5AFE5AFE},
                kPurposeGuard = {KM_TAG_PURPOSE, KM_PURPOSE_WRAP_KEY, 0x5AFE5AFE5AFE5AFE};
#ifdef __SANITIZE_ADDRESS__
constexpr size_t kGuardSize = 0;
#else
constexpr size_t kGuardSize = sizeof(Guard);
#endif
std::atomic<const Guard*> g_guard{&kBytesGuard};

Word g_real[kCrypto.size()];
std::string g_failed_crypto;

std::mutex g_mutex;
std::map<const void*, size_t> g_live;
std::vector<std::pair<std::string, Bytes>> g_secrets;
std::vector<std::string> g_unwiped;
std::atomic<bool> g_tracking{false}, g_watching{false};

template <size_t kIndex>
Word CryptoHook(Word a, Word b, Word c, Word d, Word e, Word f) {
  if (TakeFault(Call::kCrypto)) {
    if (g_failed_crypto.empty()) g_failed_crypto = kCrypto.begin()[kIndex];
    return 0;
  }
  const auto real = reinterpret_cast<Word (*)(Word, Word, Word, Word, Word, Word)>(g_real[kIndex]);
  const Word result = real(a, b, c, d, e, f);
  if (kIndex != kGenerateRsa || !g_watching) return result;
  const RSA* key = reinterpret_cast<const RSA*>(a);
  for (const BIGNUM* number : {RSA_get0_d(key), RSA_get0_p(key), RSA_get0_q(key),
                               RSA_get0_dmp1(key), RSA_get0_dmq1(key), RSA_get0_iqmp(key)}) {
    if (number != nullptr) WatchFor("generated key", BigEndian(number));
  }
  return result;
}

template <size_t... kIndex>
std::array<Word, kCrypto.size()> CryptoHooks(std::index_sequence<kIndex...>) {
  return {reinterpret_cast<Word>(&CryptoHook<kIndex>)...};
}

void* MallocHook(size_t size) {
  const bool refused = TakeFault(Call::kMalloc) || size > kLargestAllocation;
  void* block = refused ? nullptr : malloc(size + kGuardSize);
  if (refused) errno = ENOMEM;
  if (block == nullptr) return nullptr;
  memset(block, 0xA5, size);  // fresh memory looks neither cleared nor like an old secret
  memcpy(static_cast<uint8_t*>(block) + size, g_guard.load()->data(), kGuardSize);
  if (!g_tracking) return block;
  const std::lock_guard<std::mutex> lock(g_mutex);
  g_live[block] = size;
  return block;
}

// What the platform's holders zero just before they free it: a device's may have an allocator of
// its own, so that they must get none of the library's memory and free all of the platform's.
thread_local const void* t_zeroed_by_holder = nullptr;

void ExplicitBzeroHook(void* block, size_t size) {
  explicit_bzero(block, size);
  t_zeroed_by_holder = block;
}

void FreeHook(void* block) {
  const bool by_holder = std::exchange(t_zeroed_by_holder, nullptr) == block;
  {
    const std::lock_guard<std::mutex> lock(g_mutex);
    // Only of its own blocks is it known that nobody else left something in them.
    const auto found = g_live.find(block);
    if (g_tracking && block != nullptr && by_holder != (found == g_live.end())) {
      ADD_FAILURE() << "the library's memory freed as the platform's, or the other way round";
    }
    for (const auto& [label, piece] : g_secrets) {
      if (found != g_live.end() &&
          memmem(block, found->second, piece.data(), piece.size()) != nullptr) {
        g_unwiped.push_back(label);
      }
    }
  }
  ReleaseOutput(block);
}

// Memory that is no block of the library's is not judged.
bool FitsBlock(const void* memory, size_t bound) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  auto block = g_live.upper_bound(memory);
  if (block == g_live.begin()) return true;
  --block;
  const auto offset = static_cast<size_t>(static_cast<const uint8_t*>(memory) -
                                          static_cast<const uint8_t*>(block->first));
  return offset > block->second || bound <= block->second - offset;
}

void Redirect(Word* slot, Word hook) {
  const Word page_size = static_cast<Word>(sysconf(_SC_PAGESIZE));
  void* page = reinterpret_cast<void*>(reinterpret_cast<Word>(slot) / page_size * page_size);
  if (mprotect(page, page_size, PROT_READ | PROT_WRITE) != 0) abort();
  *slot = hook;
}

void RedirectNamed(const std::string& name, Word* slot) {
  static const auto hooks = CryptoHooks(std::make_index_sequence<kCrypto.size()>());
  if (name == "malloc") Redirect(slot, reinterpret_cast<Word>(&MallocHook));
  if (name == "free") Redirect(slot, reinterpret_cast<Word>(&FreeHook));
  if (name == "explicit_bzero" || name == "__explicit_bzero_chk") {
    Redirect(slot, reinterpret_cast<Word>(&ExplicitBzeroHook));
  }
  const auto is_in = [&name](Names list) {
    return std::find(list.begin(), list.end(), name) != list.end();
  };
  if (is_in(kCrypto)) {
    const auto i = std::find(kCrypto.begin(), kCrypto.end(), name) - kCrypto.begin();
    g_real[i] = *slot;
    Redirect(slot, hooks[static_cast<size_t>(i)]);
    return;
  }
  const std::string prefix = name.substr(0, name.find('_'));
  const auto prefixes = {"BN", "EC", "EVP", "RSA", "PKCS8", "d2i", "i2d"};
  const bool crypto = std::find(prefixes.begin(), prefixes.end(), prefix) != prefixes.end();
  if (is_in(kUnwanted) || (crypto && !is_in(kInfallible))) {
    ADD_FAILURE() << name << " is not hooked";
  }
}

bool RedirectLibrary() {
  const link_map* library = _r_debug.r_map;
  while (strstr(library->l_name, "libkeymaster41_ts.so") == nullptr) {
    library = library->l_next;
  }
  std::map<ElfW(Sxword), Word> dynamic;
  for (auto* entry = library->l_ld; entry->d_tag != DT_NULL; ++entry) {
    dynamic[entry->d_tag] = entry->d_un.d_ptr;
  }
  const auto* symbols = reinterpret_cast<const ElfW(Sym)*>(dynamic[DT_SYMTAB]);
  const auto* names = reinterpret_cast<const char*>(dynamic[DT_STRTAB]);
  for (const auto& [table, size] : {std::pair{DT_RELA, DT_RELASZ}, {DT_JMPREL, DT_PLTRELSZ}}) {
    const auto* relocation = reinterpret_cast<const ElfW(Rela)*>(dynamic[table]);
    for (size_t left = dynamic[size] / sizeof(*relocation); left > 0; --left, ++relocation) {
      const size_t symbol = ELF64_R_SYM(relocation->r_info);
      if (symbol != 0) {
        RedirectNamed(names + symbols[symbol].st_name,
                      reinterpret_cast<Word*>(library->l_addr + relocation->r_offset));
      }
    }
  }
  return true;
}

}  // namespace

void HookLibrary() { [[maybe_unused]] static const bool hooked = RedirectLibrary(); }

void TrackBlocks() {
  g_tracking = true;
  platform().judge_bound = FitsBlock;
}

std::string FailedCrypto() {
  const std::string name = std::exchange(g_failed_crypto, "");
  if (name == "EVP_PKEY_assign_RSA") {
    return "EVP_PKEY_assign";  // what it is in the other flavour of libcrypto
  }
  return name.compare(0, 2, "_Z") == 0 ? "dup_buffer" : name;
}

void GuardWithPurpose(bool with) { g_guard = with ? &kPurposeGuard : &kBytesGuard; }

size_t LiveBlocks() {
  const std::lock_guard<std::mutex> lock(g_mutex);
  return g_live.size();
}

bool IsOutput(const void* block, size_t length) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  const auto found = g_live.find(block);
  return found != g_live.end() && found->second >= length;
}

void ReleaseOutput(const void* block) {
  {
    const std::lock_guard<std::mutex> lock(g_mutex);
    const auto found = g_live.find(block);
    if (found != g_live.end()) {
      const auto* end = static_cast<const uint8_t*>(block) + found->second;
      if (memcmp(end, kBytesGuard.data(), kGuardSize) != 0 &&
          memcmp(end, kPurposeGuard.data(), kGuardSize) != 0) {
        ADD_FAILURE() << "written beyond a block of " << found->second << " bytes";
      }
      g_live.erase(found);
    }
  }
  free(const_cast<void*>(block));
}

void WatchFor(const std::string& label, const Bytes& secret) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  for (auto at = secret.begin(); secret.end() - at >= ptrdiff_t{kPiece}; at += kPiece) {
    g_secrets.emplace_back(label, Bytes(at, at + kPiece));
  }
  g_watching = true;
}

void ForgetSecrets() {
  const std::lock_guard<std::mutex> lock(g_mutex);
  g_secrets.clear();
  g_watching = false;
}

std::vector<std::string> Unwiped() {
  const std::lock_guard<std::mutex> lock(g_mutex);
  return std::exchange(g_unwiped, {});
}

}  // namespace test

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
#include <iterator>
#include <map>
#include <mutex>
#include <utility>

#include "tests/platform/doubles.h"
#include "tests/platform/keys.h"

namespace test {
namespace {

using Word = uintptr_t;

// Allocations above this fail, so that a length field alone cannot exhaust the machine.
constexpr size_t kLargestAllocation = size_t{256} << 20;

// All that the library calls of libcrypto fails with null or 0, takes at most six words and returns
// one, but for what has one of these in its name, which cannot fail.
constexpr const char* kInfallible[] = {"_free",     "_get0_",         "_num_",   "BN_bn2bin",
                                       "conv_form", "get_curve_name", "PKEY_id", "PKEY_get_id"};
// No part of libcrypto, and allocates as unseen.
constexpr char kDupBuffer[] = "_ZN9keymaster10dup_bufferEPKvm";
// What would escape the count of allocations.
constexpr const char* kUnwanted[] = {"calloc",        "realloc",        "strdup", "strndup",
                                     "aligned_alloc", "posix_memalign", "_Znwm",  "_Znam"};
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

// The calls into libcrypto that fail, as they were found.
struct Crypto {
  std::string name;
  Word real;
};
Crypto g_crypto[32];
size_t g_crypto_count = 0;
std::string g_failed_crypto;

std::mutex g_mutex;
std::map<const void*, size_t> g_live;
std::vector<std::pair<std::string, Bytes>> g_secrets;
std::vector<std::string> g_unwiped;
std::atomic<bool> g_tracking{false}, g_watching{false};

template <size_t kIndex>
Word CryptoHook(Word a, Word b, Word c, Word d, Word e, Word f) {
  const Crypto& call = g_crypto[kIndex];
  if (TakeFault(Call::kCrypto)) {
    if (g_failed_crypto.empty()) g_failed_crypto = call.name;
    return 0;
  }
  const auto real = reinterpret_cast<Word (*)(Word, Word, Word, Word, Word, Word)>(call.real);
  const Word result = real(a, b, c, d, e, f);
  if (!g_watching || call.name != "RSA_generate_key_ex") return result;
  const RSA* key = reinterpret_cast<const RSA*>(a);
  for (const BIGNUM* number : {RSA_get0_d(key), RSA_get0_p(key), RSA_get0_q(key),
                               RSA_get0_dmp1(key), RSA_get0_dmq1(key), RSA_get0_iqmp(key)}) {
    if (number != nullptr) WatchFor("generated key", BigEndian(number));
  }
  return result;
}

template <size_t... kIndex>
Word CryptoHookAt(size_t index, std::index_sequence<kIndex...>) {
  constexpr Word (*kHooks[])(Word, Word, Word, Word, Word, Word) = {CryptoHook<kIndex>...};
  return reinterpret_cast<Word>(kHooks[index]);
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

bool IsCrypto(const std::string& name) {
  const auto prefixes = {"BN", "EC", "EVP", "RSA", "PKCS8", "d2i", "i2d"};
  const std::string prefix = name.substr(0, name.find('_'));
  return std::find(prefixes.begin(), prefixes.end(), prefix) != prefixes.end();
}

void RedirectNamed(const std::string& name, Word* slot) {
  const auto holds = [&name](const char* part) { return name.find(part) != std::string::npos; };
  if (name == "malloc") Redirect(slot, reinterpret_cast<Word>(&MallocHook));
  if (name == "free") Redirect(slot, reinterpret_cast<Word>(&FreeHook));
  if (holds("explicit_bzero")) Redirect(slot, reinterpret_cast<Word>(&ExplicitBzeroHook));
  if (std::count(std::begin(kUnwanted), std::end(kUnwanted), name) != 0) {
    ADD_FAILURE() << name << " is not hooked";
  }
  const bool fails = std::none_of(std::begin(kInfallible), std::end(kInfallible), holds);
  if (name != kDupBuffer && !(IsCrypto(name) && fails)) return;
  if (g_crypto_count == std::size(g_crypto)) abort();
  g_crypto[g_crypto_count] = {name, *slot};
  Redirect(slot, CryptoHookAt(g_crypto_count++, std::make_index_sequence<std::size(g_crypto)>()));
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
  return name == kDupBuffer ? "dup_buffer" : name;
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

#include "tests/sweep/library_hooks.h"

#include <errno.h>
#include <link.h>
#include <openssl/rsa.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "tests/platform/faults.h"

namespace test {
namespace {

using Word = uintptr_t;

constexpr const char* kCrypto[] = {
    "BN_new",
    "BN_bin2bn",
    "BN_set_word",
    "RSA_new",
    "RSA_set0_key",
    "RSA_generate_key_ex",
    "EC_KEY_new_by_curve_name",
    "EC_KEY_set_public_key_affine_coordinates",
    "EC_POINT_get_affine_coordinates_GFp",
    "EVP_PKEY_new",
    "EVP_PKEY_assign",
    "EVP_PKEY_set1_EC_KEY",
    "EVP_PKEY_get1_RSA",
    "EVP_PKEY_get1_EC_KEY",
    "EVP_PKCS82PKEY",
    "d2i_PKCS8_PRIV_KEY_INFO",
    "i2d_PUBKEY",
};
constexpr size_t kCryptoCount = sizeof(kCrypto) / sizeof(kCrypto[0]);
constexpr size_t kGenerateRsa = 5;
constexpr size_t kPiece = 16;

struct CryptoCall {
  Word real = 0;
  std::atomic<int> calls{0};
  int fail_at = 0;
  bool and_later = false;
};
CryptoCall g_crypto[kCryptoCount];

std::mutex g_mutex;
std::unordered_map<const void*, size_t> g_live;
std::vector<std::pair<std::string, Bytes>> g_secrets;
std::vector<std::string> g_unwiped;
std::atomic<bool> g_watching{false};

void WatchRsa(const RSA* key) {
  const std::pair<const char*, const BIGNUM*> parts[] = {
      {"generated d", RSA_get0_d(key)},       {"generated p", RSA_get0_p(key)},
      {"generated q", RSA_get0_q(key)},       {"generated dmp1", RSA_get0_dmp1(key)},
      {"generated dmq1", RSA_get0_dmq1(key)}, {"generated iqmp", RSA_get0_iqmp(key)}};
  for (const auto& [label, number] : parts) {
    Bytes bytes(static_cast<size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    WatchFor(label, bytes);
  }
}

// All of these calls take at most six words and return one.
template <size_t kIndex>
Word CryptoHook(Word a, Word b, Word c, Word d, Word e, Word f) {
  CryptoCall& call = g_crypto[kIndex];
  const int now = ++call.calls;
  if (call.fail_at > 0 && (now == call.fail_at || (call.and_later && now > call.fail_at))) return 0;
  const auto real = reinterpret_cast<Word (*)(Word, Word, Word, Word, Word, Word)>(call.real);
  const Word result = real(a, b, c, d, e, f);
  if (kIndex == kGenerateRsa && g_watching) WatchRsa(reinterpret_cast<const RSA*>(a));
  return result;
}

template <size_t... kIndex>
std::array<Word, kCryptoCount> CryptoHooks(std::index_sequence<kIndex...>) {
  return {reinterpret_cast<Word>(&CryptoHook<kIndex>)...};
}

void* MallocHook(size_t size) {
  if (TakeFault(Call::kMalloc) || size > kLargestAllocation) {
    errno = ENOMEM;
    return nullptr;
  }
  void* block = malloc(size);
  if (block == nullptr) return nullptr;
  memset(block, 0xA5, size);  // fresh memory looks neither cleared nor like an old secret
  const std::lock_guard<std::mutex> lock(g_mutex);
  g_live[block] = size;
  return block;
}

void FreeHook(void* block) {
  std::unique_lock<std::mutex> lock(g_mutex);
  const auto found = g_live.find(block);
  // Only of its own blocks is it known that nobody else left something in them.
  if (found != g_live.end()) {
    for (const auto& [label, piece] : g_secrets) {
      if (memmem(block, found->second, piece.data(), piece.size()) == nullptr) continue;
      g_unwiped.push_back(label);
    }
    g_live.erase(found);
  }
  lock.unlock();
  free(block);
}

void Redirect(Word* slot, Word hook) {
  const Word page_size = static_cast<Word>(sysconf(_SC_PAGESIZE));
  void* page = reinterpret_cast<void*>(reinterpret_cast<Word>(slot) / page_size * page_size);
  if (mprotect(page, page_size, PROT_READ | PROT_WRITE) != 0) abort();
  *slot = hook;
}

void RedirectNamed(const char* name, Word* slot) {
  static const auto hooks = CryptoHooks(std::make_index_sequence<kCryptoCount>());
  if (strcmp(name, "malloc") == 0) return Redirect(slot, reinterpret_cast<Word>(&MallocHook));
  if (strcmp(name, "free") == 0) return Redirect(slot, reinterpret_cast<Word>(&FreeHook));
  for (size_t i = 0; i < kCryptoCount; ++i) {
    if (strcmp(name, kCrypto[i]) != 0) continue;
    g_crypto[i].real = *slot;
    Redirect(slot, hooks[i]);
  }
}

int RedirectLibrary(dl_phdr_info* info, size_t, void*) {
  if (strstr(info->dlpi_name, "libkeymaster41_ts.so") == nullptr) return 0;
  std::map<ElfW(Sxword), Word> dynamic;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    if (info->dlpi_phdr[i].p_type != PT_DYNAMIC) continue;
    const Word begin = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
    for (auto* entry = reinterpret_cast<const ElfW(Dyn)*>(begin); entry->d_tag != DT_NULL;
         ++entry) {
      dynamic[entry->d_tag] = entry->d_un.d_ptr;
    }
  }
  const auto* symbols = reinterpret_cast<const ElfW(Sym)*>(dynamic[DT_SYMTAB]);
  const auto* names = reinterpret_cast<const char*>(dynamic[DT_STRTAB]);
  for (const auto& [table, size] : {std::pair{DT_RELA, DT_RELASZ}, {DT_JMPREL, DT_PLTRELSZ}}) {
    const auto* relocation = reinterpret_cast<const ElfW(Rela)*>(dynamic[table]);
    for (size_t left = dynamic[size] / sizeof(*relocation); left > 0; --left, ++relocation) {
      const size_t symbol = ELF64_R_SYM(relocation->r_info);
      if (symbol == 0) continue;
      RedirectNamed(names + symbols[symbol].st_name,
                    reinterpret_cast<Word*>(info->dlpi_addr + relocation->r_offset));
    }
  }
  return 1;
}

}  // namespace

void HookLibrary() {
  static const bool hooked = dl_iterate_phdr(RedirectLibrary, nullptr) == 1;
  if (!hooked) abort();
}

const std::vector<std::string>& CryptoCalls() {
  static const std::vector<std::string> names(kCrypto, kCrypto + kCryptoCount);
  return names;
}

void FailCrypto(size_t index, int nth, bool and_later) {
  g_crypto[index].calls = 0;
  g_crypto[index].fail_at = nth;
  g_crypto[index].and_later = and_later;
}

int CryptoCount(size_t index) { return g_crypto[index].calls; }

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
    g_live.erase(block);
  }
  free(const_cast<void*>(block));
}

void WatchFor(const std::string& label, const Bytes& secret) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  for (size_t at = 0; at + kPiece <= secret.size(); at += kPiece) {
    const auto from = secret.begin() + static_cast<ptrdiff_t>(at);
    g_secrets.emplace_back(label, Bytes(from, from + kPiece));
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

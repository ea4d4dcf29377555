#include "tests/platform/faults.h"

#include <errno.h>
#include <link.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

extern "C" {
void* __libc_malloc(size_t size);
// Present in sanitizer builds only.
__attribute__((weak)) void* __interceptor_malloc(size_t size);
}

namespace test {
namespace {

struct Counter {
  std::atomic<int> calls{0}, fail_at{0};
  std::atomic<bool> and_later{false};
};

Counter g_counters[static_cast<size_t>(Call::kEnd)];
std::atomic<uintptr_t> g_library_begin{0}, g_library_end{0};

Counter& CounterOf(Call call) { return g_counters[static_cast<size_t>(call)]; }

int FindLibrary(dl_phdr_info* info, size_t, void*) {
  if (strstr(info->dlpi_name, "libkeymaster41_ts.so") == nullptr) return 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = info->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
    g_library_begin = info->dlpi_addr + segment.p_vaddr;
    g_library_end = info->dlpi_addr + segment.p_vaddr + segment.p_memsz;
  }
  return 1;
}

bool FromLibrary(const void* return_address) {
  const uintptr_t address = reinterpret_cast<uintptr_t>(return_address);
  return address >= g_library_begin && address < g_library_end;
}

void* RealMalloc(size_t size) {
  return __interceptor_malloc != nullptr ? __interceptor_malloc(size) : __libc_malloc(size);
}

void* LibraryMalloc(size_t size) {
  if (TakeFault(Call::kMalloc) || size > kLargestAllocation) {
    errno = ENOMEM;
    return nullptr;
  }
  void* block = RealMalloc(size);
  // Fresh memory must not look cleared.
  if (block != nullptr) memset(block, 0xA5, size);
  return block;
}

}  // namespace

void FailCall(Call call, int nth, bool and_later) {
  CounterOf(call).calls = 0;
  CounterOf(call).fail_at = nth;
  CounterOf(call).and_later = and_later;
}

int CallCount(Call call) { return CounterOf(call).calls; }

void ClearFaults() {
  for (size_t i = 0; i < static_cast<size_t>(Call::kEnd); ++i) {
    FailCall(static_cast<Call>(i), 0);
  }
  if (g_library_end == 0) dl_iterate_phdr(FindLibrary, nullptr);
  if (g_library_end == 0) {
    abort();  // without the range no allocation could ever be made to fail
  }
}

bool TakeFault(Call call) {
  Counter& counter = CounterOf(call);
  const int now = ++counter.calls;
  const int fail_at = counter.fail_at;
  return fail_at > 0 && (now == fail_at || (counter.and_later && now > fail_at));
}

}  // namespace test

extern "C" void* malloc(size_t size) {
  if (test::FromLibrary(__builtin_return_address(0))) return test::LibraryMalloc(size);
  return test::RealMalloc(size);
}

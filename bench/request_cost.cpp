// How many instructions and allocations does a request take? To be run under callgrind, which
// counts the instructions: one dump a request and side, named for both. The allocations go to
// standard output, one line each: name, side, calls, bytes.
#include <stdio.h>
#include <valgrind/callgrind.h>

#include "requests.h"

namespace {

constexpr int kRuns = 20;
uint64_t g_calls = 0;
uint64_t g_bytes = 0;

void* Counted(void* memory, size_t size) {
  ++g_calls;
  g_bytes += size;
  return memory;
}

}  // namespace

extern "C" {
// glibc's own allocator, under the names that a replacement of malloc reaches it by.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);

void* malloc(size_t size) { return Counted(__libc_malloc(size), size); }
void* calloc(size_t count, size_t size) {
  return Counted(__libc_calloc(count, size), count * size);
}
void* realloc(void* memory, size_t size) { return Counted(__libc_realloc(memory, size), size); }
}

namespace {

void Measure(const std::string& name, const char* side, int32_t (*call)()) {
  if (call() != 0) abort();  // and readies what is made once
  const uint64_t calls = g_calls, bytes = g_bytes;
  CALLGRIND_ZERO_STATS;
  for (int i = 0; i < kRuns; ++i) (void)call();
  const std::string dump = name + "/" + side;
  CALLGRIND_DUMP_STATS_AT(dump.c_str());
  printf("%s\t%s\t%llu\t%llu\n", name.c_str(), side,
         static_cast<unsigned long long>(g_calls - calls) / kRuns,
         static_cast<unsigned long long>(g_bytes - bytes) / kRuns);
}

}  // namespace

int main() {
  for (const bench::Request& request : bench::Requests()) {
    Measure(request.name, "library", request.library);
    Measure(request.name, "floor", request.floor);
  }
  return 0;
}

// What a request costs that a clock does not show.
//   km_cost              to be run under callgrind: a dump of instructions for each request and
//                        side, named for both, and a line with its allocations on standard output:
//                        name, side, calls, bytes
//   km_cost update MIB   the peak memory of an update beyond its input and output, in bytes
#include <keymaster_tivas_context.h>
#include <keymaster_ts.h>
#include <stdio.h>
#include <sys/resource.h>
#include <valgrind/callgrind.h>

#include "bench/null_platform.h"

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

template <typename Call>
void Measure(const char* name, const char* side, Call call) {
  if (call() != 0) abort();  // and readies what is made once
  const uint64_t calls = g_calls, bytes = g_bytes;
  CALLGRIND_ZERO_STATS;
  for (int i = 0; i < kRuns; ++i) {
    (void)call();
  }
  const std::string dump = std::string(name) + "/" + side;
  CALLGRIND_DUMP_STATS_AT(dump.c_str());
  printf("%s\t%s\t%llu\t%llu\n", name, side,
         static_cast<unsigned long long>(g_calls - calls) / kRuns,
         static_cast<unsigned long long>(g_bytes - bytes) / kRuns);
}

double PeakBytes() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return 1024.0 * static_cast<double>(usage.ru_maxrss);
}

// The peak of one update, in bytes, beyond what was resident before it: output still held.
double PeakOfUpdate(size_t size) {
  static keymaster::KeymasterTivasContext context;
  const test::Bytes input(size, 0x42);
  const keymaster_blob_t blob = test::Blob(input);
  unsigned long consumed = 0;
  keymaster_blob_t output = {};
  const double before = PeakBytes();
  if (context.TivasKmUpdate(1, nullptr, &blob, &consumed, nullptr, &output) != 0) abort();
  const double peak = PeakBytes() - before;
  free(const_cast<uint8_t*>(output.data));
  return peak;
}

}  // namespace

int main(int argc, char** argv) {
  if (Ts_Initcontext() != 0) return 1;
  if (argc == 3) {
    const size_t size = strtoul(argv[2], nullptr, 10) << 20;
    PeakOfUpdate(4096);  // warms what is loaded once
    printf("%.0f\n", PeakOfUpdate(size) - static_cast<double>(size));
    return 0;
  }
  for (const test::Request& request : bench::MeasuredRequests()) {
    const bench::Script script = bench::Record(request);
    bench::Play(&script);
    bench::RepeatedRequest repeated(request);
    Measure(request.name, "library", [&] { return repeated.Run(nullptr); });
    Measure(request.name, "floor", [&] { return repeated.Run(&script); });
  }
  return 0;
}

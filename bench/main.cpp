// The benchmarks against a platform whose calls return at once.
#include <benchmark/benchmark.h>
#include <limits.h>
#include <malloc.h>

namespace bench {
void RegisterRequestOverhead();
void RegisterMarshalling();
void RegisterGrowth();
void RegisterBulkUpdate();
void RegisterThreads();
}  // namespace bench

int main(int argc, char** argv) {
  // Memory once had from the kernel stays with the process: neither side of a pair then measures
  // the kernel's page faults.
  mallopt(M_MMAP_MAX, 0);
  mallopt(M_TRIM_THRESHOLD, INT_MAX);
  benchmark::Initialize(&argc, argv);
  bench::RegisterRequestOverhead();
  bench::RegisterMarshalling();
  bench::RegisterGrowth();
  bench::RegisterBulkUpdate();
  bench::RegisterThreads();
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

// What memory does a long update take beside its input and its output? Prints the bytes beyond
// both.
//   km_peak_memory MIB
#include <keymaster_tivas_context.h>
#include <stdio.h>

#include "null_platform.h"

namespace {

// The process's peak resident set in bytes, as the kernel counts it.
double PeakBytes() {
  double kib = 0;
  FILE* status = fopen("/proc/self/status", "r");
  for (char line[256]; status != nullptr && fgets(line, sizeof(line), status) != nullptr;) {
    if (sscanf(line, "VmHWM: %lf", &kib) == 1) break;
  }
  if (status != nullptr) fclose(status);
  return kib * 1024;
}

// The peak of one update, in bytes, beyond what was resident before it: output still held.
double PeakOfUpdate(const bench::Bytes& input) {
  static keymaster::KeymasterTivasContext context;
  const keymaster_blob_t blob = bench::View(input);
  unsigned long consumed = 0;
  keymaster_blob_t output = {};
  const double before = PeakBytes();
  if (context.TivasKmUpdate(1, nullptr, &blob, &consumed, nullptr, &output) != 0) abort();
  const double peak = PeakBytes() - before;
  bench::Release(&output);
  return peak;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || Ts_Initcontext() != 0) return 1;
  const size_t size = strtoul(argv[1], nullptr, 10) << 20;
  bench::g_update = bench::Update::kCopy;
  PeakOfUpdate(bench::Bytes(4096, 0x42));  // warms what is loaded once
  printf("%.0f\n", PeakOfUpdate(bench::Bytes(size, 0x42)) - static_cast<double>(size));
  return 0;
}

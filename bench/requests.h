// Every request that sends a command, beside what a caller without the library would do.
#ifndef BENCH_REQUESTS_H
#define BENCH_REQUESTS_H

#include <stdint.h>
#include <tee_client_api.h>

#include <array>
#include <string>
#include <vector>

#include "content.h"

namespace bench {

struct Request {
  std::string name;
  int invocations;  // commands that it sends
  // Both return 0 for success and release what they receive. floor allocates the same reply
  // buffers and makes the same platform calls with buffers made beforehand, and, where the request
  // calls libcrypto, the same calls of it.
  int32_t (*library)();
  int32_t (*floor)();
};

// Requests readies the null platform's replies at its first call.
const std::vector<Request>& Requests();
const Request& FindRequest(const std::string& name);

// One parameter of a raw command. A reply (no buffer, but a size) is allocated for the call.
struct Slot {
  uint32_t type = TEEC_NONE;
  const void* buffer = nullptr;
  uint32_t size = 0;
};
inline Slot In(const Bytes& bytes) {
  return {TEEC_MEMREF_TEMP_INPUT, bytes.data(), static_cast<uint32_t>(bytes.size())};
}
inline Slot Reply(uint32_t capacity) { return {TEEC_MEMREF_TEMP_OUTPUT, nullptr, capacity}; }
inline Slot Value() { return {TEEC_VALUE_INOUT, nullptr, 0}; }

// Raw sends one command with the platform's calls alone: reply buffers, watchdog, open, invoke,
// close.
int32_t Raw(uint32_t command, const std::array<Slot, 4>& slots);

// A PKCS#8 key of 2048 bits RSA or of P-256, made once.
const Bytes& Pkcs8Rsa();
const Bytes& Pkcs8Ec();

}  // namespace bench

#endif  // BENCH_REQUESTS_H

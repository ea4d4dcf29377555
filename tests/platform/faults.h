// Faults: the n-th call of a platform function or allocation made by the library fails.
#ifndef TESTS_PLATFORM_FAULTS_H
#define TESTS_PLATFORM_FAULTS_H

#include <stddef.h>
#include <stdint.h>

namespace test {

// kCrypto is all calls into libcrypto that can fail, as they come; a failing TEEC call
// (kInitContext, kOpenSession, kInvoke) returns kInjectedTeeError.
enum class Call {
  kCrypto,
  kMalloc,
  kMemcpyS,
  kMemsetS,
  kInitContext,
  kOpenSession,
  kInvoke,
  kCreateEvent,
  kSetInteger,
  kSetString,
  kSetParam,
  kSendEvent,
  kEnd
};
constexpr uint32_t kInjectedTeeError = 0xFFFF000Eu;

// Allocations above this fail, so that a length field alone cannot exhaust the machine.
constexpr size_t kLargestAllocation = size_t{256} << 20;

// FailCall restarts the count of a call and makes its nth (from 1) fail, and, if asked, all later
// ones. 0 fails none.
void FailCall(Call call, int nth, bool and_later = false);
// CallCount tells how often a call was made since ClearFaults or its last FailCall.
int CallCount(Call call);
// ClearFaults lets all calls succeed and restarts all counts.
void ClearFaults();
// TakeFault counts a call and tells whether it is to fail. For the doubles and hooks.
bool TakeFault(Call call);

}  // namespace test

#endif  // TESTS_PLATFORM_FAULTS_H

// A TA for tests of its host.
#ifndef TESTS_TEE_PROCESS_FAILING_APP_H
#define TESTS_TEE_PROCESS_FAILING_APP_H

#include <trusted_app.h>

constexpr TEEC_UUID kFailingApp = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};

enum FailingCommand : uint32_t {
  kFill = 1,       // five bytes of 0x22 into params[0]
  kEcho = 2,       // params[0] to params[1], whose room it wants zeroed; leaves 0x33 in both
  kMeet = 3,       // success once params[1].a calls are here together
  kNoteClose = 5,  // closing takes its time now, and leaves a file "closed" with the TA's state
  kAbort = 100,    // ends the process
  kHang = 101,     // never answers
};

#endif  // TESTS_TEE_PROCESS_FAILING_APP_H

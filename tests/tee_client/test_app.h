// A TA for tests of its host.
#ifndef TESTS_TEE_CLIENT_TEST_APP_H
#define TESTS_TEE_CLIENT_TEST_APP_H

#include <trusted_app.h>

constexpr TEEC_UUID kTestApp = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};

// A session is opened unless params[1].a says with which result not. It takes one call at a time.
enum TestCommand : uint32_t {
  kFill = 1,    // five bytes of 0x22 into params[0]
  kEcho = 2,    // params[0] to params[1], whose room it wants zeroed; leaves 0x33 in both
  kPass = 3,    // wants params[0] full of params[1].a and fills it with 0x22, reports the length
                // params[1].b, and returns params[2].a
  kHang = 100,  // never answers
  kThrow = 101,
};

#endif  // TESTS_TEE_CLIENT_TEST_APP_H

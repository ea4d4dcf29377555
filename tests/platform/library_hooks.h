// Hooks on what libkeymaster41_ts.so itself calls: malloc, free and libcrypto. Its relocated
// references are redirected, so that no other caller is touched and no tail call escapes.
#ifndef TESTS_PLATFORM_LIBRARY_HOOKS_H
#define TESTS_PLATFORM_LIBRARY_HOOKS_H

#include <stddef.h>

#include <string>
#include <vector>

#include "tests/platform/bytes.h"

namespace test {

// HookLibrary installs the hooks; more calls do nothing. KeymasterTest does, so that Call::kMalloc
// and Call::kCrypto of doubles.h are the library's alone.
void HookLibrary();
// TrackBlocks has all that stands below watched from now on, and also that the library frees its
// own memory and the holders the platform's. Before the library first allocates.
void TrackBlocks();

// FailedCrypto is the name of the first of Call::kCrypto that failed since it was last asked.
std::string FailedCrypto();

// GuardWithPurpose has the guard behind each new block look like the purpose of a wrapping key,
// else it looks like a parameter of bytes.
void GuardWithPurpose(bool with);

// LiveBlocks is how many blocks the library allocated that neither it nor ReleaseOutput freed.
size_t LiveBlocks();
// IsOutput tells whether block is one of them, of at least length bytes.
bool IsOutput(const void* block, size_t length);
void ReleaseOutput(const void* block);

// WatchFor has every block that the library allocated and frees searched for the secret (from 16
// bytes on, in pieces of 16, so that a half-wiped one shows). Software-generated RSA keys are
// watched of themselves until ForgetSecrets. Unwiped returns the labels found since its last call.
void WatchFor(const std::string& label, const Bytes& secret);
void ForgetSecrets();
std::vector<std::string> Unwiped();

}  // namespace test

#endif  // TESTS_PLATFORM_LIBRARY_HOOKS_H

// A platform whose calls return at once: the TEE answers each command with a fixed reply, the log
// drops all messages, the watchdog guards nothing. Defined in the program, it stands in front of
// the shared libraries. Apart from the settings below it keeps no state, so it has no locks.
#ifndef BENCH_NULL_PLATFORM_H
#define BENCH_NULL_PLATFORM_H

#include <stdint.h>

#include "content.h"

namespace bench {

// What an update does beside reporting as much output as it had input.
enum class Update { kReport, kCopy };
extern Update g_update;

// SetReply has a command come back with these bytes in one parameter. Not while requests run.
void SetReply(uint32_t command, unsigned index, Bytes bytes);

// The bytes that the library moved with memcpy_s on this thread.
uint64_t& BytesMoved();

}  // namespace bench

#endif  // BENCH_NULL_PLATFORM_H

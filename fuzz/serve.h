// Requests of the shared table on the doubles' TEE client, whose every answer a target makes up.
// Their outputs are judged by their contract, and what they did with the TEE, after every run.
#ifndef FUZZ_SERVE_H
#define FUZZ_SERVE_H

#include <functional>

#include "fuzz/input.h"
#include "tests/requests/requests.h"

namespace fuzz {

using test::platform;
using test::Reply;

struct Served {
  int32_t result;
  test::Observed observed;
};

// Serve makes a request, whose arguments change may have changed. look sees the outputs, and the
// doubles' records, before they are released.
using Change = std::function<void(test::Args*)>;
using Look = std::function<void(int32_t result, const test::Args&)>;
Served Serve(const test::Request& request, const Change& change = {}, const Look& look = {});

// ServeReply makes a request of one command, whose one reply that matters is these bytes.
Served ServeReply(const char* request, unsigned index, const Bytes& reply, const Look& look = {});

// Judge observes and releases outputs of which one was written: it is whole or empty after a
// success and empty after a failure.
void Judge(test::Outputs* outputs, test::Output output, int32_t result);

// EnsureTeeContext makes the TEE context where there is none.
void EnsureTeeContext();

// Truncate is as many of the bytes as an output has room for.
inline Bytes Truncate(Bytes bytes, const test::SeenParam& output) {
  bytes.resize(std::min<size_t>(bytes.size(), output.size));
  return bytes;
}

}  // namespace fuzz

#endif  // FUZZ_SERVE_H

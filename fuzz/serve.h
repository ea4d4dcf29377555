// Requests of the shared table, whose outputs are judged by their contract after every run.
#ifndef FUZZ_SERVE_H
#define FUZZ_SERVE_H

#include <functional>

#include "fuzz/scripted_tee.h"
#include "tests/requests/requests.h"

namespace fuzz {

struct Served {
  int32_t result;
  test::Observed observed;
};

// Serve makes a request, whose arguments change may have changed. look sees the outputs before they
// are released.
using Change = std::function<void(test::Args*)>;
using Look = std::function<void(int32_t result, const test::Args&)>;
Served Serve(const test::Request& request, const Change& change = {}, const Look& look = {});

// ServeReply makes a request of one command, whose one reply that matters is these bytes.
Served ServeReply(const char* request, unsigned index, const Bytes& reply, const Look& look = {});

// Judge observes and releases outputs of which one was written: it is whole or empty after a
// success and empty after a failure.
void Judge(test::Outputs* outputs, test::Output output, int32_t result);

}  // namespace fuzz

#endif  // FUZZ_SERVE_H

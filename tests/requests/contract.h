// What every output holds after a failure, for each method and kind of failure: the promises of
// include/keymaster_tivas_context.h as data.
#ifndef TESTS_REQUESTS_CONTRACT_H
#define TESTS_REQUESTS_CONTRACT_H

#include <string_view>

#include "tests/requests/requests.h"

namespace test {

struct Contract {
  std::string_view method;
  Output output;
  States success;       // of each kind, 0 where it cannot be
  States preparing;     // serialising or allocating, before the last command was answered
  States tee;           // the TEE's error or the TA's
  States first_reply;   // a reply that does not decode, or is longer than its buffer
  States second_reply;  // the same of the second one: characteristics, data, verification token
  States copying;       // allocating or copying what was answered
};

const std::vector<Contract>& Contracts();

// Allowed is what an output may hold: Allowed("TivasKmBegin", kParams, &Contract::tee). An output
// that the contract does not name stays untouched.
States Allowed(std::string_view method, Output output, States Contract::*failure);

}  // namespace test

#endif  // TESTS_REQUESTS_CONTRACT_H

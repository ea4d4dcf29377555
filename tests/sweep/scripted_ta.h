// What the requests and the TA that serves them both know.
#ifndef TESTS_SWEEP_SCRIPTED_TA_H
#define TESTS_SWEEP_SCRIPTED_TA_H

#include <map>
#include <string>

#include "tests/platform/bytes.h"

namespace test {

struct Fixture {
  std::map<std::string, Bytes> secrets;  // by label; all of what follows that is one
  Bytes rsa_pkcs8, ec_pkcs8;
  Bytes masked_transit, mask, transit, unwrapped, update_output;
  Bytes wrapper;
  // Answers.
  Bytes blob, ec_blob, traits, params, chain, rsa_public, ec_public;
};
const Fixture& fixture();
// A nonce and associated data.
const keymaster_key_param_set_t* OperationParams();

}  // namespace test

#endif  // TESTS_SWEEP_SCRIPTED_TA_H

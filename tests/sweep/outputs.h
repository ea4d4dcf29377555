// What a request may write, and what became of it.
#ifndef TESTS_SWEEP_OUTPUTS_H
#define TESTS_SWEEP_OUTPUTS_H

#include <hardware/keymaster_defs.h>
#include <stdint.h>

#include <map>
#include <string>

namespace test {

constexpr uint64_t kUntouched = 0x5E5E5E5E5E5E5E5Eu;

// Outputs is what a request may write. All but `params` of a verification begin as garbage.
struct Outputs {
  Outputs();
  keymaster_key_blob_t key;
  keymaster_key_characteristics_t traits;
  keymaster_blob_t data;
  keymaster_key_param_set_t params;
  keymaster_cert_chain_t chain;
  uint64_t number[3];
};

// The state of each output by its letter (k, t, d, p, c, n): "u" untouched, "e" empty, "w" and
// the content when whole, "x" when it is none of these (a length without bytes, bytes that are no
// block of the library's, or too few of them).
using State = std::map<char, std::string>;
State Describe(const Outputs& outputs);
void Release(Outputs* outputs);

}  // namespace test

#endif  // TESTS_SWEEP_OUTPUTS_H

// What the tests of the requests share: the object, the caller's outputs, one text for all that a
// request did, a key.
#ifndef TESTS_CONTEXT_REQUEST_H
#define TESTS_CONTEXT_REQUEST_H

#include <keymaster/android_keymaster_utils.h>
#include <keymaster_tivas_context.h>
#include <keymaster_ts.h>

#include <memory>
#include <string>

#include "tests/platform/keymaster_test.h"
#include "tests/platform/keys.h"

namespace test {

using Parts = std::vector<Bytes>;

// What Outcome says without a TEE context.
constexpr char kNoTee[] = "ffff0006";
// TaFails is a TA that fails with a code of its own after it wrote its outputs; Failed is the
// message about it.
inline std::string Failed(const char* command) {
  return std::string(": E! ") + command + " failed, ret=0xffff0009";
}
inline Reply TaFails() { return Reply::Fail(0xFFFF0009).Out(2, {1}).Out(3, {1}); }

struct RequestTest : KeymasterTest {
  RequestTest() { ResetOutputs(); }

  // Answer has the TA give one reply to all of a command.
  static void Answer(uint32_t command, const Reply& reply) {
    platform().On(command, [reply](const Invocation&) { return reply; });
  }
  // Outcome is all that a request did in one text: result (a TEE code in hexadecimal), commands
  // and the outputs that are no more as the caller left them ("empty" or their content), then the
  // log's last lines, where "E! text" stands for "E [error] : text":
  //   "-41 [4 11] key=empty: I text; E! text"
  // The log must begin with `start`, which is left out. It frees the outputs, sets them back to the
  // caller's own, and moves the commands from the platform's records to `sent`.
  std::string Outcome(int32_t result, size_t last_lines = SIZE_MAX);
  // Inputs is what a command of the last request brought the TA: its values and the bytes of its
  // inputs, of inputs that are outputs too the first 8; empty ones left out.
  Parts Inputs(size_t command = 0) const;

  keymaster::KeymasterTivasContext km;
  std::string start;
  std::vector<Invocation> sent;
  keymaster_key_blob_t key;
  keymaster_blob_t data;
  keymaster_key_param_set_t params;
  keymaster_key_characteristics_t traits;
  keymaster_cert_chain_t chain;

 private:
  void ResetOutputs();
};

std::string Hex(const Bytes& bytes);
inline uint32_t Size(const Bytes& bytes) { return static_cast<uint32_t>(bytes.size()); }

// Never read: what an output or an unreadable input points at.
extern uint8_t g_callers_own[16];
// Blobs and sets that say they hold something and do not.
constexpr keymaster_key_blob_t kHollowKey = {nullptr, 32};
constexpr keymaster_blob_t kHollowBlob = {nullptr, 32};
constexpr keymaster_key_param_set_t kHollowSet = {nullptr, 1}, kEmptySet = {nullptr, 0};

// A characteristics reply, and what Outcome makes of it.
Bytes Characteristics();
constexpr char kTraits[] = " traits=10000002=20|900003ea:0708";
// A reply of one list, and what Outcome makes of it; one that announces what is not there.
inline Bytes NonceReply() { return Cat({WireList({BytesEntry(KM_TAG_NONCE, 0, 1)}), {0xAA}}); }
constexpr char kNonce[] = " params=900003e9:aa";
inline Bytes BadReply() { return Le32(1); }
// SecondList is the wire form of byte-valued parameters that are not the key's definition.
Bytes SecondList(std::initializer_list<std::pair<int64_t, Bytes>> params);
// FinishInput is the input of a finish: both items are always there.
Bytes FinishInput(const Bytes& input, const Bytes& signature);

// SharedRsaKey is one 2048-bit key of the process, with exponent 65537.
EVP_PKEY* SharedRsaKey();
}  // namespace test

#endif  // TESTS_CONTEXT_REQUEST_H

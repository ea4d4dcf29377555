// What the tests of the requests share: the object, the caller's outputs as text, key numbers.
#ifndef TESTS_CONTEXT_REQUEST_H
#define TESTS_CONTEXT_REQUEST_H

#include <keymaster/android_keymaster_utils.h>
#include <keymaster_tivas_context.h>
#include <keymaster_ts.h>
#include <openssl/bn.h>
#include <openssl/evp.h>

#include <functional>
#include <memory>
#include <string>

#include "tests/platform/keymaster_test.h"

namespace test {

struct RequestTest : KeymasterTest {
  keymaster::KeymasterTivasContext km;
};

// A code of the TA's own, and what the library says without a TEE context.
constexpr uint32_t kTaError = 0xFFFF0009;
constexpr int32_t Code(uint32_t tee_result) { return static_cast<int32_t>(tee_result); }

constexpr int32_t kTaFailed = Code(kTaError);

// RequestLog is the lines under the requests' tag since the last ClearRecords, as "I text; E text";
// "E! text" stands for "E [error] : text". LastLines is the last count of them.
std::string RequestLog();
std::string LastLines(size_t count);
inline std::string LastLine() { return LastLines(1); }
// Answer forgets what was seen and queued, and has the TA answer one command.
void Answer(uint32_t command, const Reply& reply);
// Sent is a command as it was sent.
inline const Invocation& Sent(size_t i = 0) { return platform().invocations.at(i); }
std::string Hex(const Bytes& bytes);

// TakeBlob tells what a request made of an output: "kept" when it is still as Kept() made it,
// "empty" when null with length 0, else the bytes in hexadecimal. It frees them and sets the
// output back to Kept().
extern uint8_t g_callers_own;
template <typename BlobType>
std::string TakeBlob(BlobType* blob) {
  const uint8_t*& data = keymaster::BlobData(*blob);
  size_t& size = keymaster::BlobSize(*blob);
  std::string text = "broken";
  if (data == &g_callers_own && size == 77) {
    text = "kept";
  } else if (data == nullptr && size == 0) {
    text = "empty";
  } else if (data != nullptr) {
    text = Hex(BlobBytes(*blob));
    free(const_cast<uint8_t*>(data));
  }
  data = &g_callers_own;
  size = 77;
  return text;
}
// TakeSet does the same with a parameter set.
std::string TakeSet(keymaster_key_param_set_t* set);

// Out is an output that is Kept() at first and frees what it received.
template <typename BlobType>
struct Out : BlobType {
  Out() : BlobType{&g_callers_own, 77} {}
  ~Out() { Take(); }
  Out(const Out&) = delete;
  Out& operator=(const Out&) = delete;
  std::string Take() { return TakeBlob(static_cast<BlobType*>(this)); }
};
using OutBlob = Out<keymaster_blob_t>;
using OutKey = Out<keymaster_key_blob_t>;

struct OutSet : keymaster_key_param_set_t {
  OutSet();
  ~OutSet() { Take(); }
  std::string Take() { return TakeSet(this); }
};
struct OutCharacteristics : keymaster_key_characteristics_t {
  OutCharacteristics();
  ~OutCharacteristics() { Take(); }
  std::string Take() { return TakeSet(&hw_enforced) + " | " + TakeSet(&sw_enforced); }
};

// OutChain is a certificate chain; taken, it is "kept", "empty" or the certificates in hexadecimal.
struct OutChain : keymaster_cert_chain_t {
  OutChain();
  ~OutChain() { Take(); }
  std::string Take();
};

// FailEachCallOf runs a request once for each fault that can befall it: its result must be one
// that belongs to the fault, and no session may stay open. What was allocated is for the sanitizer.
void FailEachCallOf(const std::function<int32_t()>& request);

// A characteristics reply, and what it says.
Bytes Characteristics();
constexpr char kCharacteristics[] = "10000002=20 | 900003ea:0708";

// SecondList is the wire form of byte-valued parameters that are not the key's definition.
Bytes SecondList(std::initializer_list<std::pair<int64_t, Bytes>> params);

struct Free {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
  void operator()(BIGNUM* p) const { BN_free(p); }
};
using Pkey = std::unique_ptr<EVP_PKEY, Free>;
using Number = std::unique_ptr<BIGNUM, Free>;

// SharedRsaKey is one 2048-bit key of the process, with exponent 65537.
EVP_PKEY* SharedRsaKey();
// NumberOf reads one of a key's numbers; "rsa-factor1", "pub" and so on.
Number NumberOf(const EVP_PKEY* key, const char* name);
Bytes BigEndian(const BIGNUM* number);
inline Bytes BigEndianOf(const EVP_PKEY* key, const char* name) {
  return BigEndian(NumberOf(key, name).get());
}
Bytes Pkcs8(const EVP_PKEY* key);
uint32_t U32(const Bytes& bytes, size_t offset);

}  // namespace test

#endif  // TESTS_CONTEXT_REQUEST_H

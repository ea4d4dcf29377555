// The published vectors of tests/data, and how one is checked through the library.
#ifndef TESTS_KNOWN_ANSWERS_VECTORS_H
#define TESTS_KNOWN_ANSWERS_VECTORS_H

#include <gtest/gtest.h>
#include <keymaster/android_keymaster_utils.h>
#include <keymaster_tivas_context.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "tests/requests/wire.h"

using Str = std::string;
using Key = keymaster::TKeymasterBlob<keymaster_key_blob_t>;

// Vector is one record of a file: names and values, as they stand there. A value is hexadecimal or
// begins with a number.
struct Vector : std::map<Str, Str> {
  bool Has(const Str& name) const { return count(name) != 0; }
  int Number(const Str& name) const { return Has(name) ? std::stoi(at(name)) : 0; }
  Str Bytes(const Str& name) const;
};
const std::vector<Vector>& Vectors();

using test::Params;
using test::ParamSet;

// Client makes requests and counts them.
struct Client {
  std::atomic<uint64_t> requests{0};
  keymaster::KeymasterTivasContext km;

  // The text goes in pieces, what is left at its end with the finish.
  using Outcome = std::pair<int32_t, Str>;
  Outcome Operate(keymaster_purpose_t purpose, const Key& key, const Params& params,
                  const Str& text, size_t piece, const Str& aad = {}, const Str& signature = {});
  void Import(const Vector& vector, Key* key);
  // Check imports a vector's key and does with it all that the vector is for, once with each size
  // of pieces. MACs are cut to lengths that go with it.
  void Check(const Vector& vector, const std::vector<size_t>& pieces);
};

// Connected is a test on a state folder of its own.
struct Connected : testing::Test {
  Connected();
  ~Connected() override;
  Client client;
  Str folder = testing::TempDir() + "known_answers_XXXXXX";
};

#endif  // TESTS_KNOWN_ANSWERS_VECTORS_H

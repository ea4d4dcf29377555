// The published vectors of tests/data through the library to the embedded TA: each in pieces of
// awkward sizes, and all of them on many threads at once.
#include <gtest/gtest.h>
#include <keymaster/android_keymaster_utils.h>
#include <keymaster_tivas_context.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "tests/requests/wire.h"

namespace {

using Str = std::string;
using test::Bytes, test::Params, test::ParamSet;
using Key = keymaster::TKeymasterBlob<keymaster_key_blob_t>;

// ---- The vectors

// Vector is one record of a file: names and values, as they stand there. A value is hexadecimal or
// begins with a number.
struct Vector : std::map<Str, Str> {
  bool Has(const Str& name) const { return count(name) != 0; }
  bool IsCipher() const { return Has("plain") || Has("cipher"); }
  uint64_t Number(const Str& name) const { return Has(name) ? std::stoul(at(name)) : 0; }
  // What is made at random is not what stands here, but it must be as good.
  bool IsRandom() const {
    const uint64_t padding = Number("padding");
    return padding == KM_PAD_RSA_OAEP || padding == KM_PAD_RSA_PSS ||
           padding == KM_PAD_RSA_PKCS1_1_5_ENCRYPT || Number("algorithm") == KM_ALGORITHM_EC;
  }
  Bytes Value(const Str& name) const {
    Bytes bytes;
    for (size_t i = 0; Has(name) && i < at(name).size(); i += 2) {
      bytes.push_back(static_cast<uint8_t>(std::stoi(at(name).substr(i, 2), nullptr, 16)));
    }
    return bytes;
  }
  // What it says of its key, and of the beginning of its operations.
  Params Description() const {
    Params params;
    const std::pair<const char*, keymaster_tag_t> fields[] = {
        {"mode", KM_TAG_BLOCK_MODE}, {"padding", KM_TAG_PADDING}, {"digest", KM_TAG_DIGEST}};
    for (const auto& [name, tag] : fields) {
      if (Has(name)) params.emplace_back(tag, Number(name));
    }
    return params;
  }
};

// Records end with an empty line. Lines that begin with a space continue a value, and $ stands
// before the name of a value defined further up.
void ReadFile(const std::filesystem::path& path, std::vector<Vector>* all) {
  std::ifstream file(path);
  std::map<Str, Str> defined;
  Vector vector;
  Str name;
  int number = 0;
  for (Str line; file.good(); ++number) {
    std::getline(file, line);
    const size_t equals = line.find(" =");
    if (line[0] == ' ') {
      vector[name] += line.substr(2);
    } else if (line[0] != '#' && equals != Str::npos) {
      name = line.substr(0, equals);
      const Str value = line.substr(std::min(line.size(), equals + 3));
      vector[name] = value[0] == '$' ? defined.at(value.substr(1)) : value;
    } else if (line.empty() && !vector.empty()) {
      if (vector.Has("define")) defined[vector["define"]] = vector["value"];
      vector["at"] = path.filename().string() + " above line " + std::to_string(number);
      if (!vector.Has("define")) all->push_back(vector);
      vector.clear();
    }
  }
}

const std::vector<Vector>& Vectors() {
  static const std::vector<Vector> vectors = [] {
    std::vector<Vector> all;
    for (const auto& entry : std::filesystem::directory_iterator(VECTORS)) {
      ReadFile(entry, &all);
    }
    return all;
  }();
  return vectors;
}

// ---- What is done with one

// Requests go to the TA on a state folder of its own.
struct KnownAnswers : testing::Test {
  using Outcome = std::pair<int32_t, Bytes>;

  KnownAnswers() {
    EXPECT_NE(mkdtemp(folder.data()), nullptr);
    setenv("KEYMASTER_TA_STATE", folder.c_str(), 1);
    EXPECT_EQ(km.Initialize(keymaster::KmVersion::KEYMASTER_4_1), 0);
  }
  ~KnownAnswers() override {
    (void)km.FinishTeeContext();
    std::filesystem::remove_all(folder);
  }

  // The text goes in pieces, what is left at its end with the finish.
  Outcome Operate(keymaster_purpose_t purpose, const Key& key, const Params& params,
                  const Bytes& text, size_t piece, const Bytes& aad = {},
                  const Bytes& signature = {}) {
    unsigned long handle = 0;
    size_t consumed = 0, at = 0;
    Bytes output;
    int32_t result = km.TivasKmBegin(purpose, &key, ParamSet(params).get(), nullptr, &handle);
    for (size_t i = 0; result == 0 && i < aad.size(); i += 13) {
      const Bytes part(&aad[i], &aad[0] + std::min(aad.size(), i + 13));
      result = km.TivasKmUpdate(handle, ParamSet({{KM_TAG_ASSOCIATED_DATA, part}}).get(), nullptr,
                                nullptr, nullptr, nullptr);
    }
    while (result == 0 && at <= text.size()) {
      keymaster::TKeymasterBlob<keymaster_blob_t> yield;
      const bool last = text.size() - at < piece;
      const keymaster_blob_t input = {text.data() + at, last ? text.size() - at : piece};
      const keymaster_blob_t proof = test::Blob(signature);
      result = last
                   ? km.TivasKmFinishNew(handle, nullptr, input.data_length == 0 ? nullptr : &input,
                                         &proof, nullptr, &yield)
                   : km.TivasKmUpdate(handle, nullptr, &input, &consumed, nullptr, &yield);
      output.insert(output.end(), yield.data, yield.data + yield.data_length);
      at += last ? piece : consumed;
    }
    return {result, result == 0 ? output : Bytes()};
  }

  void Import(const Vector& vector, Key* key) {
    const bool ciphers = vector.IsCipher();
    const uint64_t algorithm = vector.Number("algorithm");
    const ParamSet description(
        vector.Description() +
        Params{{KM_TAG_ALGORITHM, algorithm},
               {KM_TAG_NO_AUTH_REQUIRED, 1},
               {KM_TAG_PURPOSE, ciphers ? KM_PURPOSE_ENCRYPT : KM_PURPOSE_SIGN},
               {KM_TAG_PURPOSE, ciphers ? KM_PURPOSE_DECRYPT : KM_PURPOSE_VERIFY},
               {KM_TAG_CALLER_NONCE, 1},
               {KM_TAG_MIN_MAC_LENGTH, ciphers ? 96u : 64u}});
    const Bytes bytes = vector.Value("key");
    const keymaster_blob_t material = test::Blob(bytes);
    const bool pkcs8 = algorithm == KM_ALGORITHM_RSA || algorithm == KM_ALGORITHM_EC;
    const auto format = pkcs8 ? KM_KEY_FORMAT_PKCS8 : KM_KEY_FORMAT_RAW;
    ASSERT_EQ(km.TivasKmImportKey(description.get(), format, &material, key, nullptr), 0);
  }

  // Check imports a vector's key and does with it all that the vector is for, once with each size
  // of pieces. MACs are cut to lengths that go with it.
  void Check(const Vector& vector, const std::vector<size_t>& pieces) {
    const bool ciphers = vector.IsCipher();
    const bool gcm = vector.Number("mode") == KM_MODE_GCM;
    const bool hmac = vector.Number("algorithm") == KM_ALGORITHM_HMAC;
    const auto error = vector.Has("error") ? std::stoi(vector.at("error")) : 0;
    const Bytes text = vector.Value(ciphers ? "plain" : "text"), aad = vector.Value("aad"),
                whole = vector.Value(ciphers ? "cipher" : "signature"),
                nonce = vector.Value("nonce");
    Key key;
    Import(vector, &key);
    for (const size_t piece : pieces) {
      Params params = vector.Description();
      if (!nonce.empty()) params.emplace_back(KM_TAG_NONCE, nonce);
      const size_t lost = error != 0 ? 0 : gcm ? piece % 5 : hmac ? piece % (whole.size() - 7) : 0;
      const Bytes made(whole.begin(), whole.end() - static_cast<ptrdiff_t>(lost));
      if (gcm) params.emplace_back(KM_TAG_MAC_LENGTH, 8 * (16 - lost));
      const Params checking = params;
      if (hmac) params.emplace_back(KM_TAG_MAC_LENGTH, 8 * made.size());
      const auto back = [&](const Bytes& from, size_t size) {
        return ciphers ? Operate(KM_PURPOSE_DECRYPT, key, checking, from, size, aad)
                       : Operate(KM_PURPOSE_VERIFY, key, checking, text, size, {}, from);
      };
      const Outcome good = {error, error == 0 && ciphers ? text : Bytes()};
      if (vector.Has(ciphers ? "plain" : "text") && (error == 0 || whole.empty())) {
        const Outcome outcome =
            Operate(ciphers ? KM_PURPOSE_ENCRYPT : KM_PURPOSE_SIGN, key, params, text, piece, aad);
        const bool reversed = error == 0 && vector.IsRandom();
        EXPECT_EQ(reversed ? back(outcome.second, piece) : outcome,
                  reversed ? good : Outcome(error, made));
      }
      if (!vector.Has(ciphers ? "cipher" : "signature")) continue;
      EXPECT_EQ(back(made, piece), good);
      const bool tells = error == 0 && (gcm || !ciphers) && piece == pieces.front();
      for (size_t i = 0; tells && i < made.size(); i += 5) {
        Bytes bad = made;
        bad[i] ^= 1;
        EXPECT_EQ(back(bad, 50), Outcome(KM_ERROR_VERIFICATION_FAILED, Bytes()));
      }
    }
  }

  keymaster::KeymasterTivasContext km;
  Str folder = testing::TempDir() + "known_answers_XXXXXX";
};

TEST_F(KnownAnswers, ComeTrueInPiecesOfEverySize) {
  for (const Vector& vector : Vectors()) {
    SCOPED_TRACE(vector.at("at"));
    Check(vector, {1, 2, 3, 7, 8, 9, 15, 16, 17, 31, 32, 33, 1000});
  }
  EXPECT_GE(Vectors().size(), 200u);
}

// Each operation comes to what it comes to alone.
TEST_F(KnownAnswers, ComeTrueOnManyThreads) {
  using Clock = std::chrono::steady_clock;
  const char* const seconds = getenv("KM_THREADS_SECONDS");
  const auto end = Clock::now() + std::chrono::seconds(seconds == nullptr ? 1 : atoi(seconds));
  std::vector<std::thread> threads;
  for (size_t i = 0; i < 12; ++i) {
    threads.emplace_back([=] {
      for (size_t at = i * 31; !HasFailure() && Clock::now() < end; ++at) {
        Check(Vectors()[at % Vectors().size()], {1 + at % 40});
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace

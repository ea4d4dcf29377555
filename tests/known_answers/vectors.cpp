#include "tests/known_answers/vectors.h"

#include <filesystem>
#include <fstream>

namespace {

const uint8_t* Raw(const Str& bytes) { return reinterpret_cast<const uint8_t*>(bytes.data()); }
keymaster_blob_t View(const Str& bytes) { return {Raw(bytes), bytes.size()}; }

// What a vector says of its key, and of the beginning of its operations.
Params ParamsOf(const Vector& vector) {
  Params params;
  const std::pair<const char*, keymaster_tag_t> fields[] = {
      {"mode", KM_TAG_BLOCK_MODE}, {"padding", KM_TAG_PADDING}, {"digest", KM_TAG_DIGEST}};
  for (const auto& [name, tag] : fields) {
    if (vector.Has(name)) params.emplace_back(tag, static_cast<uint64_t>(vector.Number(name)));
  }
  return params;
}

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

}  // namespace

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

Str Vector::Bytes(const Str& name) const {
  Str bytes;
  for (size_t i = 0; Has(name) && i < at(name).size(); i += 2) {
    bytes += static_cast<char>(std::stoi(at(name).substr(i, 2), nullptr, 16));
  }
  return bytes;
}

Client::Outcome Client::Operate(keymaster_purpose_t purpose, const Key& key, const Params& params,
                                const Str& text, size_t piece, const Str& aad,
                                const Str& signature) {
  unsigned long handle = 0;
  size_t consumed = 0, at = 0;
  Str output;
  int32_t result = km.TivasKmBegin(purpose, &key, ParamSet(params).get(), nullptr, &handle);
  ++requests;
  for (size_t i = 0; result == 0 && i < aad.size(); i += 13, ++requests) {
    const ParamSet part({{KM_TAG_ASSOCIATED_DATA, aad.substr(i, 13)}});
    result = km.TivasKmUpdate(handle, part.get(), nullptr, nullptr, nullptr, nullptr);
  }
  while (result == 0 && at <= text.size()) {
    keymaster::TKeymasterBlob<keymaster_blob_t> yield;
    const bool last = text.size() - at < piece;
    const keymaster_blob_t input = {Raw(text) + at, last ? text.size() - at : piece};
    const keymaster_blob_t proof = View(signature);
    result = last ? km.TivasKmFinishNew(handle, nullptr, input.data_length == 0 ? nullptr : &input,
                                        &proof, nullptr, &yield)
                  : km.TivasKmUpdate(handle, nullptr, &input, &consumed, nullptr, &yield);
    output.append(yield.data, yield.data + yield.data_length);
    at += last ? piece : consumed;
    ++requests;
  }
  return {result, result == 0 ? output : Str()};
}

void Client::Import(const Vector& vector, Key* key) {
  const bool ciphers = vector.Has("plain") || vector.Has("cipher"), wraps = vector.Has("wrapped");
  const auto algorithm = static_cast<uint64_t>(vector.Number("algorithm"));
  const Str bytes = vector.Bytes(wraps ? "wrapping" : "key");
  const keymaster_blob_t material = View(bytes);
  const ParamSet plain(ParamsOf(vector) +
                       Params{{KM_TAG_ALGORITHM, algorithm},
                              {KM_TAG_NO_AUTH_REQUIRED, 1},
                              {KM_TAG_PURPOSE, ciphers ? KM_PURPOSE_ENCRYPT : KM_PURPOSE_SIGN},
                              {KM_TAG_PURPOSE, ciphers ? KM_PURPOSE_DECRYPT : KM_PURPOSE_VERIFY},
                              {KM_TAG_CALLER_NONCE, 1},
                              {KM_TAG_MIN_MAC_LENGTH, ciphers ? 96u : 64u}});
  const ParamSet wrapping({{KM_TAG_ALGORITHM, KM_ALGORITHM_RSA},
                           {KM_TAG_PURPOSE, KM_PURPOSE_WRAP_KEY},
                           {KM_TAG_PADDING, KM_PAD_RSA_OAEP},
                           {KM_TAG_DIGEST, KM_DIGEST_SHA1}});
  Key wrapping_key;
  const bool pkcs8 = wraps || algorithm == KM_ALGORITHM_RSA || algorithm == KM_ALGORITHM_EC;
  ASSERT_EQ(km.TivasKmImportKey((wraps ? wrapping : plain).get(),
                                pkcs8 ? KM_KEY_FORMAT_PKCS8 : KM_KEY_FORMAT_RAW, &material,
                                wraps ? &wrapping_key : key, nullptr),
            0);
  ++requests;
  if (!wraps) return;
  const Str wrapped = vector.Bytes("wrapped"), mask = vector.Bytes("mask");
  const keymaster_key_blob_t wrapper = {Raw(wrapped), wrapped.size()};
  const keymaster_key_blob_t masking_key = {Raw(mask), mask.size()};
  ASSERT_EQ(km.TivasKmImportWrappedKeyNew(&wrapper, &wrapping_key, &masking_key, ParamSet({}).get(),
                                          0, 0, key, nullptr),
            0);
  ++requests;
}

void Client::Check(const Vector& vector, const std::vector<size_t>& pieces) {
  const bool ciphers = vector.Has("plain") || vector.Has("cipher");
  const bool gcm = vector.Number("mode") == KM_MODE_GCM;
  const bool hmac = vector.Number("algorithm") == KM_ALGORITHM_HMAC;
  const int padding = vector.Number("padding"), error = vector.Number("error");
  const bool random = padding == KM_PAD_RSA_OAEP || padding == KM_PAD_RSA_PSS ||
                      padding == KM_PAD_RSA_PKCS1_1_5_ENCRYPT ||
                      vector.Number("algorithm") == KM_ALGORITHM_EC;
  const Str text = vector.Bytes(ciphers ? "plain" : "text"), aad = vector.Bytes("aad"),
            whole = vector.Bytes(ciphers ? "cipher" : "signature"), nonce = vector.Bytes("nonce");
  Key key;
  Import(vector, &key);
  for (const size_t piece : pieces) {
    Params params = ParamsOf(vector);
    if (!nonce.empty()) params.emplace_back(KM_TAG_NONCE, nonce);
    const size_t lost = error != 0 ? 0 : gcm ? piece % 5 : hmac ? piece % (whole.size() - 7) : 0;
    const Str made = whole.substr(0, whole.size() - lost);
    if (gcm) params.emplace_back(KM_TAG_MAC_LENGTH, 8 * (16 - lost));
    const Params checking = params;
    if (hmac) params.emplace_back(KM_TAG_MAC_LENGTH, 8 * made.size());
    // What is made at random is not what stands in the vector, but it must be as good.
    const auto back = [&](const Str& from, size_t size) {
      return ciphers ? Operate(KM_PURPOSE_DECRYPT, key, checking, from, size, aad)
                     : Operate(KM_PURPOSE_VERIFY, key, checking, text, size, {}, from);
    };
    const Outcome good = {error, error == 0 && ciphers ? text : Str()};
    if (vector.Has(ciphers ? "plain" : "text") && (error == 0 || whole.empty())) {
      const Outcome outcome =
          Operate(ciphers ? KM_PURPOSE_ENCRYPT : KM_PURPOSE_SIGN, key, params, text, piece, aad);
      const bool reversed = random && error == 0;
      EXPECT_EQ(reversed ? back(outcome.second, piece) : outcome,
                reversed ? good : Outcome(error, made));
    }
    if (!vector.Has(ciphers ? "cipher" : "signature")) continue;
    EXPECT_EQ(back(made, piece), good);
    const bool tells = error == 0 && (gcm || !ciphers) && piece == pieces.front();
    for (size_t i = 0; tells && i < made.size(); i += 5) {
      Str bad = made;
      bad[i] = static_cast<char>(bad[i] ^ 1);
      EXPECT_EQ(back(bad, 50), Outcome(KM_ERROR_VERIFICATION_FAILED, Str()));
    }
  }
}

Connected::Connected() {
  EXPECT_NE(mkdtemp(folder.data()), nullptr);
  setenv("KEYMASTER_TA_STATE", folder.c_str(), 1);
  EXPECT_EQ(client.km.Initialize(keymaster::KmVersion::KEYMASTER_4_1), 0);
}

Connected::~Connected() {
  (void)client.km.FinishTeeContext();
  std::filesystem::remove_all(folder);
}

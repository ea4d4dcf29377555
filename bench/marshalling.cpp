// Is a serialiser that people would pick quicker with the same parameters, and does the time of an
// entry grow with the number of entries? Each side encodes a platform parameter set into bytes that
// the caller owns, and decodes bytes into a platform set that owns its values. The others may keep
// their message objects between rounds.
#include <benchmark/benchmark.h>
#include <keymaster_ts.h>
#include <string.h>

#include "tests/platform/bytes.h"
// The serialisers' headers do not keep our warnings.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wshadow"
#pragma GCC diagnostic ignored "-Wundef"
#include "params.pb.h"
#include "params_generated.h"
#pragma GCC diagnostic pop

namespace bench {
namespace {

using Set = keymaster_key_param_set_t;
using Params = std::vector<keymaster_key_param_t>;
using test::Bytes;

bool IsBlob(const keymaster_key_param_t& param) {
  return test::IsByteValued(static_cast<uint32_t>(param.tag));
}

// Parameters of a TA's reply: integers of each width and flags; every blob_every-th (0: none) is a
// value of blob's bytes instead.
Params MakeParams(int64_t count, int64_t blob_every, const Bytes& blob) {
  constexpr keymaster_tag_t kTags[] = {KM_TAG_USER_ID, KM_TAG_USER_SECURE_ID,
                                       KM_TAG_ACTIVE_DATETIME, KM_TAG_NO_AUTH_REQUIRED,
                                       KM_TAG_USER_AUTH_TYPE};
  Params params;
  for (int64_t i = 0; i < count; ++i) {
    keymaster_key_param_t param = {};
    if (blob_every != 0 && i % blob_every == 0) {
      param.tag = KM_TAG_APPLICATION_ID;
      param.blob = test::Blob(blob);
    } else {
      param.tag = kTags[i % 5];
      param.long_integer =
          param.tag == KM_TAG_NO_AUTH_REQUIRED ? 1 : 1000 + static_cast<uint64_t>(i);
    }
    params.push_back(param);
  }
  return params;
}

// Fills a parameter with a copy of bytes, or with a number where there are none.
void Fill(uint32_t tag, const void* data, size_t size, uint64_t number,
          keymaster_key_param_t* param) {
  param->tag = static_cast<keymaster_tag_t>(tag);
  param->long_integer = number;
  if (data != nullptr) {
    auto* copy = static_cast<uint8_t*>(malloc(size));
    memcpy(copy, data, size);
    param->blob = {copy, size};
  }
}

Set NewSet(size_t count) {
  return {static_cast<keymaster_key_param_t*>(calloc(count, sizeof(keymaster_key_param_t))), count};
}

// Each side keeps what it encoded last, to decode it.
struct Library {
  static constexpr const char* kName = "library";
  uint8_t* bytes = nullptr;
  uint32_t length = 0;

  ~Library() { free(bytes); }
  void Encode(const Set& set) {
    free(bytes);
    if (BuildKmParams(&set, &bytes, &length) != 0) abort();
    benchmark::DoNotOptimize(bytes);
  }
  // A reply is the second list alone, in which all of these parameters are.
  Set Decode() {
    Set set = {};
    if (BuildKeyParamSet(&set, bytes + 4, length - 4) != 0) abort();
    return set;
  }
};

struct Protobuf {
  static constexpr const char* kName = "protobuf";
  bench_proto::Params out, in;
  uint8_t* bytes = nullptr;
  int length = 0;

  ~Protobuf() { free(bytes); }
  void Encode(const Set& set) {
    out.Clear();
    for (size_t i = 0; i < set.length; ++i) {
      const keymaster_key_param_t& param = set.params[i];
      bench_proto::Param* added = out.add_params();
      added->set_tag(static_cast<uint32_t>(param.tag));
      if (IsBlob(param)) {
        added->set_blob(param.blob.data, param.blob.data_length);
      } else {
        added->set_number(param.long_integer);
      }
    }
    free(bytes);
    length = static_cast<int>(out.ByteSizeLong());
    bytes = static_cast<uint8_t*>(malloc(static_cast<size_t>(length)));
    if (!out.SerializeToArray(bytes, length)) abort();
    benchmark::DoNotOptimize(bytes);
  }
  Set Decode() {
    if (!in.ParseFromArray(bytes, length)) abort();
    Set set = NewSet(static_cast<size_t>(in.params_size()));
    for (size_t i = 0; i < set.length; ++i) {
      const bench_proto::Param& read = in.params(static_cast<int>(i));
      const void* data = read.has_blob() ? read.blob().data() : nullptr;
      Fill(read.tag(), data, read.blob().size(), read.number(), &set.params[i]);
    }
    return set;
  }
};

struct Flatbuffers {
  static constexpr const char* kName = "FlatBuffers";
  flatbuffers::DetachedBuffer bytes;
  std::vector<flatbuffers::Offset<bench_flat::Param>> offsets;

  void Encode(const Set& set) {
    flatbuffers::FlatBufferBuilder builder;
    offsets.clear();
    for (size_t i = 0; i < set.length; ++i) {
      const keymaster_key_param_t& param = set.params[i];
      const auto tag = static_cast<uint32_t>(param.tag);
      if (IsBlob(param)) {
        const auto blob = builder.CreateVector(param.blob.data, param.blob.data_length);
        offsets.push_back(bench_flat::CreateParam(builder, tag, 0, blob));
      } else {
        offsets.push_back(bench_flat::CreateParam(builder, tag, param.long_integer));
      }
    }
    builder.Finish(bench_flat::CreateParams(builder, builder.CreateVector(offsets)));
    bytes = builder.Release();
    benchmark::DoNotOptimize(bytes.data());
  }
  Set Decode() {
    flatbuffers::Verifier verifier(bytes.data(), bytes.size(), 64, 10000000);
    if (!bench_flat::VerifyParamsBuffer(verifier)) abort();
    const auto& list = *bench_flat::GetParams(bytes.data())->params();
    Set set = NewSet(list.size());
    for (size_t i = 0; i < set.length; ++i) {
      const bench_flat::Param* read = list.Get(static_cast<flatbuffers::uoffset_t>(i));
      const auto* blob = read->blob();
      Fill(read->tag(), blob == nullptr ? nullptr : blob->data(),
           blob == nullptr ? 0 : blob->size(), read->number(), &set.params[i]);
    }
    return set;
  }
};

// A side that loses content would be quick for nothing.
bool Same(const Set& a, const Set& b) {
  Library first, second;
  first.Encode(a);
  second.Encode(b);
  return first.length == second.length && memcmp(first.bytes, second.bytes, first.length) == 0;
}

template <typename Side>
void Marshal(benchmark::State& state, bool encodes, int64_t blob_every, size_t blob_size) {
  const Bytes blob(blob_size, 0x42);
  Params params = MakeParams(state.range(0), blob_every, blob);
  const Set set = {params.data(), params.size()};
  Side side;
  side.Encode(set);
  Set decoded = side.Decode();
  if (!Same(set, decoded)) state.SkipWithError("content lost");
  test::FreeSet(&decoded);
  for (auto _ : state) {
    if (encodes) {
      side.Encode(set);
    } else {
      decoded = side.Decode();
      test::FreeSet(&decoded);
    }
  }
}

template <typename Side>
void RegisterSide() {
  for (const bool encodes : {true, false}) {
    for (const auto& [content, blob_every] : {std::pair("integers", 0), {"mixed", 4}}) {
      const std::string name =
          std::string(encodes ? "encode/" : "decode/") + content + "/" + Side::kName;
      benchmark::RegisterBenchmark(name.c_str(), Marshal<Side>, encodes, blob_every, 32)
          ->Arg(4)
          ->Arg(12)
          ->Arg(64);
    }
  }
}

}  // namespace

void RegisterMarshalling() {
  RegisterSide<Library>();
  RegisterSide<Protobuf>();
  RegisterSide<Flatbuffers>();
  for (const size_t size : {0, 16, 1024}) {
    const std::string name = "growth/" + std::to_string(size);
    benchmark::RegisterBenchmark(name.c_str(), Marshal<Library>, true, size == 0 ? 0 : 1, size)
        ->Arg(10)
        ->Arg(1000)
        ->Arg(100000);
  }
}

}  // namespace bench

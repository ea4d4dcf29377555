// Is any serialiser that people would pick quicker with the same parameters? Each side encodes a
// platform parameter set into bytes, and decodes bytes into a platform set that owns its values,
// as callers receive it.
// The bytes land in a new buffer, which the caller owns; the others may keep their message objects
// between rounds.
#include <benchmark/benchmark.h>
#include <string.h>

#include <memory>

#include "content.h"
// The serialisers' headers do not keep our warnings.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wshadow"
#pragma GCC diagnostic ignored "-Wundef"
#define MSGPACK_NO_BOOST
#include <msgpack.hpp>

#include "params.pb.h"
#include "params_generated.h"
#pragma GCC diagnostic pop

namespace bench {

namespace {

using Set = keymaster_key_param_set_t;

void SetBlob(keymaster_key_param_t* param, const void* data, size_t size) {
  auto* copy = static_cast<uint8_t*>(malloc(size));
  memcpy(copy, data, size);
  param->blob = {copy, size};
}

Set NewSet(size_t count) {
  return {static_cast<keymaster_key_param_t*>(calloc(count, sizeof(keymaster_key_param_t))), count};
}

struct Library {
  static constexpr const char* kName = "library";
  Bytes reply;  // one list, as the TA sends it

  void Prepare(const Params& params) { reply = OneList(params); }
  void Encode(const Set& set) {
    uint8_t* out = nullptr;
    uint32_t length = 0;
    if (BuildKmParams(&set, &out, &length) != 0) abort();
    benchmark::DoNotOptimize(out);
    free(out);
  }
  Set Decode() {
    Set set = {};
    if (BuildKeyParamSet(&set, reply.data(), static_cast<uint32_t>(reply.size())) != 0) abort();
    return set;
  }
};

struct Protobuf {
  static constexpr const char* kName = "protobuf";
  bench_proto::Params out, in;
  Bytes bytes;

  void Prepare(const Params& params) {
    EncodeInto(SetOf(params),
               [this](const uint8_t* data, size_t size) { bytes.assign(data, data + size); });
  }
  void Encode(const Set& set) {
    EncodeInto(set, [](const uint8_t*, size_t) {});
  }
  template <typename Use>
  void EncodeInto(const Set& set, Use use) {
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
    const size_t size = out.ByteSizeLong();
    auto* buffer = static_cast<uint8_t*>(malloc(size));
    if (!out.SerializeToArray(buffer, static_cast<int>(size))) abort();
    use(buffer, size);
    benchmark::DoNotOptimize(buffer);
    free(buffer);
  }
  Set Decode() {
    if (!in.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) abort();
    Set set = NewSet(static_cast<size_t>(in.params_size()));
    for (size_t i = 0; i < set.length; ++i) {
      const bench_proto::Param& read = in.params(static_cast<int>(i));
      keymaster_key_param_t* param = &set.params[i];
      param->tag = static_cast<keymaster_tag_t>(read.tag());
      if (read.has_blob()) {
        SetBlob(param, read.blob().data(), read.blob().size());
      } else {
        param->long_integer = read.number();
      }
    }
    return set;
  }
};

struct Flatbuffers {
  static constexpr const char* kName = "FlatBuffers";
  flatbuffers::DetachedBuffer bytes;
  std::vector<flatbuffers::Offset<bench_flat::Param>> offsets;

  void Prepare(const Params& params) { Encode(SetOf(params)); }
  void Encode(const Set& set) {
    flatbuffers::FlatBufferBuilder builder;
    offsets.clear();
    for (size_t i = 0; i < set.length; ++i) {
      const keymaster_key_param_t& param = set.params[i];
      const auto tag = static_cast<uint32_t>(param.tag);
      offsets.push_back(
          IsBlob(param)
              ? bench_flat::CreateParam(
                    builder, tag, 0, builder.CreateVector(param.blob.data, param.blob.data_length))
              : bench_flat::CreateParam(builder, tag, param.long_integer));
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
      keymaster_key_param_t* param = &set.params[i];
      param->tag = static_cast<keymaster_tag_t>(read->tag());
      if (read->blob() != nullptr) {
        SetBlob(param, read->blob()->data(), read->blob()->size());
      } else {
        param->long_integer = read->number();
      }
    }
    return set;
  }
};

struct Msgpack {
  static constexpr const char* kName = "MessagePack";
  std::unique_ptr<msgpack::sbuffer> buffer;
  msgpack::object_handle read;

  void Prepare(const Params& params) { Encode(SetOf(params)); }
  void Encode(const Set& set) {
    buffer = std::make_unique<msgpack::sbuffer>(1024);
    msgpack::packer<msgpack::sbuffer> packer(*buffer);
    packer.pack_array(static_cast<uint32_t>(2 * set.length));
    for (size_t i = 0; i < set.length; ++i) {
      const keymaster_key_param_t& param = set.params[i];
      packer.pack_uint32(static_cast<uint32_t>(param.tag));
      if (IsBlob(param)) {
        const auto size = static_cast<uint32_t>(param.blob.data_length);
        packer.pack_bin(size);
        packer.pack_bin_body(reinterpret_cast<const char*>(param.blob.data), size);
      } else {
        packer.pack_uint64(param.long_integer);
      }
    }
    benchmark::DoNotOptimize(buffer->data());
  }
  Set Decode() {
    msgpack::unpack(read, buffer->data(), buffer->size());
    const msgpack::object_array& list = read.get().via.array;
    Set set = NewSet(list.size / 2);
    for (size_t i = 0; i < set.length; ++i) {
      const msgpack::object& value = list.ptr[2 * i + 1];
      keymaster_key_param_t* param = &set.params[i];
      param->tag = static_cast<keymaster_tag_t>(list.ptr[2 * i].as<uint32_t>());
      if (value.type == msgpack::type::BIN) {
        SetBlob(param, value.via.bin.ptr, value.via.bin.size);
      } else {
        param->long_integer = value.as<uint64_t>();
      }
    }
    return set;
  }
};

// A side that loses content would be quick for nothing.
bool Same(const Set& a, const Set& b) {
  if (a.length != b.length) return false;
  for (size_t i = 0; i < a.length; ++i) {
    const keymaster_key_param_t& x = a.params[i];
    const keymaster_key_param_t& y = b.params[i];
    if (x.tag != y.tag) return false;
    if (!IsBlob(x) && x.long_integer != y.long_integer) return false;
    if (IsBlob(x) && (x.blob.data_length != y.blob.data_length ||
                      memcmp(x.blob.data, y.blob.data, x.blob.data_length) != 0)) {
      return false;
    }
  }
  return true;
}

template <typename Side>
void Run(benchmark::State& state, bool encode, size_t blob_every) {
  const Bytes blob(32, 0x42);
  const Params params = MakeParams(static_cast<size_t>(state.range(0)), blob_every, blob);
  const Set set = SetOf(params);
  Side side;
  side.Prepare(params);
  Set decoded = side.Decode();
  if (!Same(set, decoded)) state.SkipWithError("content lost");
  Release(&decoded);
  for (auto _ : state) {
    if (encode) {
      side.Encode(set);
    } else {
      decoded = side.Decode();
      Release(&decoded);
    }
  }
}

template <typename Side>
void Register() {
  for (const bool encode : {true, false}) {
    for (const auto& [content, blob_every] : {std::pair("integers", 0u), {"mixed", 4u}}) {
      const std::string name =
          std::string("marshal/") + (encode ? "encode/" : "decode/") + content + "/" + Side::kName;
      benchmark::RegisterBenchmark(name.c_str(), Run<Side>, encode, blob_every)
          ->Arg(4)
          ->Arg(12)
          ->Arg(64);
    }
  }
}

}  // namespace

void RegisterMarshalling() {
  Register<Library>();
  Register<Protobuf>();
  Register<Flatbuffers>();
  Register<Msgpack>();
}

}  // namespace bench

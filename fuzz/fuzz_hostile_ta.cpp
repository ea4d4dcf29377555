// A hostile TA behind every request: each result code, length and reply byte is the fuzzer's.
// Whatever it does, outputs are as their contract says, sessions are closed, and the library serves
// the next request.
//
// The input: a request's number in the table (255 ends the TEE context), a byte of its variant,
// then what the TEE answers to its calls, and the next request. An open is one byte, 1 for the TA's
// first session; an answer is a byte and for each output a byte and its bytes. A first byte from
// kFailure on stands for a failure, and its code follows.
#include "fuzz/serve.h"
#include "wire/little_endian.h"

namespace {

using fuzz::Bytes;
using fuzz::Check;
using fuzz::Input;
using fuzz::platform;
using fuzz::Reply;
using test::Args;
using test::Invocation;
using test::Request;

constexpr int kMostRequests = 6;
constexpr uint8_t kEndContext = 0xFF;  // in place of a request's number

// ---- The TEE

constexpr uint8_t kFailure = 0xE0;
constexpr uint8_t kUsual = 1;    // of a reference: what a well-behaved TA answers
constexpr uint8_t kChanged = 2;  // the same with bytes of the fuzzer's somewhere

// The last value that the TA returned.
uint64_t g_value = 0;

TEEC_Result ReadResult(Input* input, uint8_t kind) {
  return kind < kFailure ? TEEC_SUCCESS : std::max(1u, input->U32());
}

Reply Open(Input* input) {
  const uint8_t kind = input->U8();
  return Reply::Fail(ReadResult(input, kind)).Value(0, kind, 0);
}

// No byte is that of unwritten outputs, so that what was written shows.
Bytes Written(Bytes bytes) {
  static const uint8_t unwritten = test::Outputs().hmac[0][0];
  std::replace(bytes.begin(), bytes.end(), unwritten, static_cast<uint8_t>(unwritten + 1));
  return bytes;
}

// Has one reference get the usual bytes and their number, or others or a number of the fuzzer's.
void AnswerReference(Input* input, unsigned index, const test::SeenParam& output, Reply* reply) {
  const uint8_t kind = input->U8();
  Bytes& bytes = reply->outputs[index];
  if (kind == kChanged) {
    const size_t at = std::min<size_t>(input->U16(), bytes.size());
    const Bytes change = input->ReadSized();
    std::copy_n(change.begin(), std::min(change.size(), bytes.size() - at),
                bytes.begin() + static_cast<ptrdiff_t>(at));
  } else if (kind != kUsual) {
    bytes = input->ReadSized();
  }
  bytes = fuzz::Truncate(Written(bytes), output);
  if (kind >= kFailure) reply->Size(index, input->U32());
}

void AnswerValue(Input* input, unsigned index, Reply* reply) {
  const Bytes bytes = Written(test::Le64(input->U64()));
  reply->Value(index, km41::GetU32(&bytes[0]), km41::GetU32(&bytes[4]));
  g_value = km41::GetU64(&bytes[0]);
}

Reply AnswerWell(const Invocation& invocation) {
  return test::AnswerTo(invocation.command, *invocation.operation);
}

Reply Answer(Input* input, const Invocation& invocation) {
  Reply reply = AnswerWell(invocation);
  reply.result = ReadResult(input, input->U8());
  for (unsigned i = 0; i < 4; ++i) {
    const uint32_t type = TEEC_PARAM_TYPE_GET(invocation.param_types, i);
    if (type == TEEC_VALUE_OUTPUT || type == TEEC_VALUE_INOUT) {
      AnswerValue(input, i, &reply);
    } else if (type >= TEEC_MEMREF_TEMP_OUTPUT) {
      AnswerReference(input, i, invocation.params[i], &reply);
    }
  }
  return reply;
}

// ---- Requests

// What an input may change of a request's arguments. Most can be left out of some requests.
constexpr void (*kVariants[])(Args*) = {
    [](Args*) {},
    test::No<&Args::characteristics>,
    test::No<&Args::client_id>,
    test::No<&Args::app_data>,
    test::No<&Args::params>,
    test::No<&Args::out_params>,
    test::No<&Args::data>,
    test::No<&Args::input>,
    [](Args* args) { args->input = &test::fixture().long_input.blob; },
    test::No<&Args::signature>,
    [](Args* args) { args->password_only = false; },
};

// What the contract does not say: whose numbers they are.
void CheckOperation(std::string_view method, int32_t result, const Args& args) {
  const bool begin = method == "TivasKmBegin";
  if (result != 0 || (!begin && (method != "TivasKmUpdate" || args.input == nullptr))) return;
  Check(*args.number == (begin ? g_value : args.input->data_length),
        begin ? "the handle is the TA's" : "all input is consumed");
}

fuzz::Served ServeWell(const Request& request) {
  static_cast<test::Script&>(platform()) = {};
  platform().any = AnswerWell;
  fuzz::EnsureTeeContext();
  return fuzz::Serve(request);
}

std::vector<fuzz::Served> ServeAllWell() {
  std::vector<fuzz::Served> all;
  for (const Request& request : test::Requests()) {
    all.push_back(ServeWell(request));
    Check(all.back().result == 0, "every request is served");
  }
  return all;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<fuzz::Served> expected = ServeAllWell();
  Input input(data, size);
  platform().init = [&input] { return Reply::Fail(ReadResult(&input, input.U8())); };
  platform().open = [&input] { return Open(&input); };
  platform().any = [&input](const Invocation& invocation) { return Answer(&input, invocation); };
  size_t number = 0;
  for (int i = 0; i < kMostRequests && !input.empty(); ++i) {
    const uint8_t chosen = input.U8(), variant = input.U8();
    if (chosen == kEndContext) {
      (void)keymaster::KeymasterTivasContext().FinishTeeContext();
      continue;
    }
    number = chosen % test::Requests().size();
    const Request& request = test::Requests()[number];
    fuzz::Serve(
        request, kVariants[variant % std::size(kVariants)],
        [&](int32_t result, const Args& args) { CheckOperation(request.method, result, args); });
  }
  const fuzz::Served served = ServeWell(test::Requests()[number]);
  Check(served.result == 0 && served.observed == expected[number].observed,
        "the next request is served as it was before any other");
  return 0;
}

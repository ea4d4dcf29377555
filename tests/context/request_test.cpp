#include "tests/context/request_test.h"

namespace test {

void RequestTest::Renew() { StateOf(kData); }

States RequestTest::StateOf(Output output) {
  const Observed observed = Observe(&outputs, kPlainBlocks);
  const Outputs garbage;
  outputs = garbage;
  outputs.token.parameters_verified = &outputs.params;
  platform().ClearRecords();
  return observed.states[output];
}

void RequestTest::SetParams(const Params& params) {
  params_.emplace(params);
  args.params = params_->get();
}

Parts RequestTest::Sent(size_t index) {
  Parts parts;
  const Invocation& seen = platform().invocations.at(index);
  for (unsigned i = 0; i < 4; ++i) {
    const uint32_t type = TEEC_PARAM_TYPE_GET(seen.param_types, i);
    const SeenParam& param = seen.params[i];
    Bytes part = param.in;
    if (type == TEEC_MEMREF_TEMP_INOUT) part.resize(8);
    if (type == TEEC_VALUE_INPUT || type == TEEC_VALUE_INOUT) {
      part = Cat({Le32(param.value.a), Le32(param.value.b)});
    }
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

Lines RequestTest::Logged() {
  Lines lines;
  for (const std::string& line : Log()) {
    if (line.compare(2, 14, "KeyMaster_Ts: ") == 0) {
      lines.push_back(line.substr(0, 2) + line.substr(16));
    }
  }
  return lines;
}

}  // namespace test

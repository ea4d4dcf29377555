// Preloaded into keymasterctl, writes what passes between library and TA as seeds: a file each
// under $FUZZ_CAPTURE/<target>. With $FUZZ_CAPTURE_REQUEST all commands of the process are one
// request of that number to the hostile TA. make-corpus does all of it.
#include <dlfcn.h>
#include <keymaster/wrapped_key.h>
#include <keymaster_ts.h>
#include <openssl/x509.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <tee_client_api.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kConfigure = 1, kBegin = 8, kVerifyAuthorization = 39, kErrorRecord = 66;
constexpr uint8_t kFailure = 0xE0;
constexpr uint16_t kLargestCapacity = 8192;

template <typename Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

void Save(const std::string& target, const Bytes& bytes) {
  static int number = 0;
  const char* root = getenv("FUZZ_CAPTURE");
  if (root == nullptr || bytes.empty()) return;
  const std::string folder = std::string(root) + "/" + target;
  mkdir(folder.c_str(), 0755);
  std::ofstream file(folder + "/" + std::to_string(getpid()) + "-" + std::to_string(++number));
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

void Append(Bytes* out, uint64_t value, size_t size) {
  for (size_t i = 0; i < size; ++i) out->push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void Append(Bytes* out, const Bytes& bytes) { out->insert(out->end(), bytes.begin(), bytes.end()); }

void AppendSized(Bytes* out, const Bytes& bytes) {
  Append(out, std::min<size_t>(bytes.size(), UINT16_MAX), 2);
  Append(out, Bytes(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(std::min<size_t>(
                                                       bytes.size(), UINT16_MAX))));
}

uint64_t NumberAt(const Bytes& bytes, size_t at, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size && at + i < bytes.size(); ++i)
    value |= uint64_t{bytes[at + i]} << 8 * i;
  return value;
}

bool HasBytes(uint64_t tag) { return tag >> 28 == 8 || tag >> 28 == 9; }

Bytes Contents(const TEEC_TempMemoryReference& ref) {
  const auto* bytes = static_cast<const uint8_t*>(ref.buffer);
  return bytes == nullptr ? Bytes() : Bytes(bytes, bytes + ref.size);
}

// ---- The software TA's commands

Bytes g_ta, g_handle;
std::vector<Bytes> g_replies;

// The parameter that carries a list of key parameters, 4 for none.
unsigned ListOf(uint32_t command) {
  switch (command) {
    case 2:
    case 4:
    case 9:
    case 10:
    case 39:
      return 0;
    case 3:
    case 5:
    case 6:
    case 7:
    case 8:
      return 1;
    default:
      return 4;
  }
}

// The signed part of an auth token, made for the operation and the time that the target will have;
// the HMAC is of this machine's boot, and the target makes its own.
Bytes PortableToken(Bytes token) {
  token.resize(37);
  if (!g_handle.empty() && std::equal(g_handle.begin(), g_handle.end(), &token[1])) {
    std::fill(&token[1], &token[9], 0xFF);
  }
  const Bytes time = {0, 0, 0, 0, 0, 0x0F, 0x42, 0x3F};
  std::copy(time.begin(), time.end(), &token[29]);
  return token;
}

// Two lists and their bytes as one list of the form that targets read.
Bytes ListSource(const Bytes& wire) {
  const uint64_t first = NumberAt(wire, 0, 4);
  const uint64_t second = NumberAt(wire, 4 + 16 * first, 4);
  const uint64_t area = 8 + 16 * (first + second);
  Bytes out = {4};
  for (uint64_t i = 0; i < first + second; ++i) {
    const uint64_t at = (i < first ? 4 : 8) + 16 * i;
    const uint64_t tag = NumberAt(wire, at, 4);
    Append(&out, tag, 4);
    if (!HasBytes(tag)) {
      Append(&out, NumberAt(wire, at + 8, 8), 8);
      continue;
    }
    const uint8_t* from = wire.data() + area + NumberAt(wire, at + 8, 4);
    Bytes value(from, from + NumberAt(wire, at + 12, 4));
    if (tag == static_cast<uint32_t>(KM_TAG_AUTH_TOKEN)) value = PortableToken(value);
    AppendSized(&out, value);
  }
  Append(&out, 0, 4);
  return out;
}

Bytes Source(uint32_t command, unsigned index, const Bytes& bytes) {
  if (index == ListOf(command) && !bytes.empty()) return ListSource(bytes);
  if (command == kVerifyAuthorization && index == 1 && bytes.size() > 8) {
    Bytes out = {5};
    Append(&out, Bytes(bytes.begin(), bytes.begin() + 8));
    AppendSized(&out, PortableToken(Bytes(bytes.begin() + 8, bytes.end())));
    return out;
  }
  if (!g_handle.empty() && bytes.size() >= 8 &&
      std::equal(g_handle.begin(), g_handle.end(), bytes.begin())) {
    return {3, 0};
  }
  const auto reply = std::find(g_replies.begin(), g_replies.end(), bytes);
  if (reply != g_replies.end() && !bytes.empty()) {
    return {2, static_cast<uint8_t>(reply - g_replies.begin())};
  }
  Bytes out = {0};
  AppendSized(&out, bytes);
  return out;
}

void NoteRequest(uint32_t command, const TEEC_Operation& operation) {
  g_ta.push_back(static_cast<uint8_t>(command));
  g_ta.push_back(1);
  Append(&g_ta, operation.paramTypes, 4);
  for (unsigned i = 0; i < 4; ++i) {
    const uint32_t type = TEEC_PARAM_TYPE_GET(operation.paramTypes, i);
    const TEEC_Parameter& param = operation.params[i];
    if (type >= TEEC_MEMREF_TEMP_OUTPUT) {
      Append(&g_ta, std::min<uint32_t>(param.tmpref.size, kLargestCapacity), 2);
    }
    if (type == TEEC_MEMREF_TEMP_INPUT || type == TEEC_MEMREF_TEMP_INOUT) {
      Append(&g_ta, Source(command, i, Contents(param.tmpref)));
    } else if (type != TEEC_NONE && type <= TEEC_VALUE_INOUT) {
      Append(&g_ta, param.value.a, 4);
      Append(&g_ta, param.value.b, 4);
    }
  }
}

// ---- The hostile TA's answers, and replies on their own

Bytes g_hostile;

bool WholeProcess() { return getenv("FUZZ_CAPTURE_REQUEST") != nullptr; }

void FlushHostile() {
  Save("hostile_ta", g_hostile);
  g_hostile.clear();
}

void NoteAnswer(uint32_t command, TEEC_Result result, const TEEC_Operation& operation) {
  if (command != kErrorRecord && !(WholeProcess() && !g_hostile.empty())) {
    FlushHostile();
    g_hostile = {
        static_cast<uint8_t>(WholeProcess() ? atoi(getenv("FUZZ_CAPTURE_REQUEST")) : command), 0};
  }
  if (command != kErrorRecord) g_hostile.push_back(0);
  g_hostile.push_back(result == TEEC_SUCCESS ? 0 : kFailure);
  if (result != TEEC_SUCCESS) Append(&g_hostile, result, 4);
  for (unsigned i = 0; i < 4; ++i) {
    const uint32_t type = TEEC_PARAM_TYPE_GET(operation.paramTypes, i);
    if (type == TEEC_VALUE_OUTPUT || type == TEEC_VALUE_INOUT) {
      Append(&g_hostile, operation.params[i].value.a, 4);
      Append(&g_hostile, operation.params[i].value.b, 4);
    } else if (type >= TEEC_MEMREF_TEMP_OUTPUT) {
      g_hostile.push_back(0);
      const Bytes reply = result == TEEC_SUCCESS ? Contents(operation.params[i].tmpref) : Bytes();
      AppendSized(&g_hostile, reply);
    }
  }
}

void NoteReplies(uint32_t command, const TEEC_Operation& operation) {
  const auto reply = [&](unsigned i) { return Contents(operation.params[i].tmpref); };
  switch (command) {
    case 2:
    case 4:
      Save("characteristics", reply(3));
      break;
    case 3:
      Save("characteristics", reply(2));
      break;
    case 5:
      Save("public_key", reply(2));
      break;
    case 6:
      Save("attest_chain", reply(2));
      break;
    case 8:
    case 39:
      Save("param_set", reply(2));
      break;
    default:
      break;
  }
  for (unsigned i = 0; i < 4; ++i) {
    if (TEEC_PARAM_TYPE_GET(operation.paramTypes, i) >= TEEC_MEMREF_TEMP_OUTPUT) {
      g_replies.push_back(reply(i));
    }
  }
  if (command == kBegin) {
    g_handle.clear();
    Append(&g_handle, operation.params[3].value.a, 4);
    Append(&g_handle, operation.params[3].value.b, 4);
  }
}

struct AtExit {
  ~AtExit() {
    Save("ta_commands", g_ta);
    FlushHostile();
  }
} g_at_exit;

}  // namespace

extern "C" {

__attribute__((visibility("default"))) TEEC_Result TEEC_InvokeCommand(TEEC_Session* session,
                                                                      uint32_t command,
                                                                      TEEC_Operation* operation,
                                                                      uint32_t* origin) {
  static const auto next = Next<decltype(&TEEC_InvokeCommand)>("TEEC_InvokeCommand");
  if (command == kConfigure) return next(session, command, operation, origin);
  NoteRequest(command, *operation);
  const TEEC_Result result = next(session, command, operation, origin);
  NoteAnswer(command, result, *operation);
  if (result == TEEC_SUCCESS) NoteReplies(command, *operation);
  return result;
}

__attribute__((visibility("default"))) int32_t BuildKmParams(
    const keymaster_key_param_set_t* params, uint8_t** out, uint32_t* out_len) {
  const int32_t result = Next<decltype(&BuildKmParams)>("BuildKmParams")(params, out, out_len);
  if (result == 0) {
    const Bytes source = ListSource(Bytes(*out, *out + *out_len));
    Save("round_trip", Bytes(source.begin() + 1, source.end()));
  }
  return result;
}

__attribute__((visibility("default"))) PKCS8_PRIV_KEY_INFO* d2i_PKCS8_PRIV_KEY_INFO(
    PKCS8_PRIV_KEY_INFO** info, const unsigned char** der, long length) {
  Save("pkcs8", Bytes(*der, *der + length));
  return Next<decltype(&d2i_PKCS8_PRIV_KEY_INFO)>("d2i_PKCS8_PRIV_KEY_INFO")(info, der, length);
}
}

namespace keymaster {

keymaster_error_t parse_wrapped_key(const TKeymasterBlob<keymaster_key_blob_t>& wrapped_key,
                                    TKeymasterBlob<keymaster_blob_t>* iv,
                                    TKeymasterBlob<keymaster_key_blob_t>* transit_key,
                                    TKeymasterBlob<keymaster_key_blob_t>* secure_key,
                                    TKeymasterBlob<keymaster_blob_t>* tag,
                                    AuthorizationSet* auth_list, keymaster_key_format_t* key_format,
                                    TKeymasterBlob<keymaster_blob_t>* wrapped_key_description) {
  Save("wrapped_key",
       Bytes(wrapped_key.key_material, wrapped_key.key_material + wrapped_key.key_material_size));
  Dl_info here;
  dladdr(reinterpret_cast<void*>(&parse_wrapped_key), &here);
  return Next<decltype(&parse_wrapped_key)>(here.dli_sname)(wrapped_key, iv, transit_key,
                                                            secure_key, tag, auth_list, key_format,
                                                            wrapped_key_description);
}

}  // namespace keymaster

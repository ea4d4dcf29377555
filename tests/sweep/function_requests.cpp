// The requests that are exported functions: marshalling, TA commands, reports.
#include <tee_client_api.h>
// Behind the TEE client's header, with which it declares ObtainTaErrorCode.
#include <keymaster_ts.h>

#include "tests/sweep/requests.h"
#include "tests/sweep/scripted_ta.h"

namespace test {
namespace {

constexpr int32_t kNoMemory = KM_ERROR_MEMORY_ALLOCATION_FAILED;
constexpr int32_t kUnknown = KM_ERROR_UNKNOWN_ERROR;
constexpr int32_t kEnomem = -12;
constexpr int32_t kTeeGeneric = static_cast<int32_t>(TEEC_ERROR_GENERIC);
constexpr int32_t kTeeNoMemory = static_cast<int32_t>(TEEC_ERROR_OUT_OF_MEMORY);

const Outcomes kSends = {{kTeeNoMemory}, {}, {kTeeGeneric}, {}, {}};
const Outcomes kCopiesHandle = {{kTeeNoMemory}, {kTeeGeneric}, {kTeeGeneric}, {}, {}};
const Outcomes kMarshals = {{kEnomem}, {kEnomem}, {kEnomem}, {}, {}};

// Buffers of a Tee* function; what it writes back becomes the outputs' numbers.
struct TeeBuffers {
  uint8_t a[4096] = {}, b[4096] = {};
  uint32_t a_length = sizeof(a), b_length = sizeof(b);
  uint64_t wide = sizeof(b);
};
template <typename Call>
std::function<int32_t(Outputs*)> Tee(Call call) {
  return [call](Outputs* o) {
    static const Bytes input = Ramp(8, 24);
    TeeBuffers t;
    const auto result = static_cast<int32_t>(call(input.data(), 24u, &t));
    if (t.a_length != sizeof(t.a)) o->number[0] = t.a_length;
    if (t.b_length != sizeof(t.b)) o->number[1] = t.b_length;
    if (t.wide != sizeof(t.b)) o->number[2] = t.wide;
    return result;
  };
}

int32_t AddMany(Outputs* o) {
  KmParams record{};
  int32_t result = InitKmParams(&record);
  const keymaster_key_param_set_t& set = *OperationParams();
  for (uint32_t i = 0; result == 0 && i < 18; ++i) {
    result = AddKmParams(&record, &set.params[i % 2]);
    // A failed addition leaves the record as it was.
    if (record.len != (result == 0 ? i + 1 : i)) result = kInputError;
  }
  uint8_t* bytes = nullptr;
  uint32_t length = 0;
  if (result == 0) result = SerializeKmParams(nullptr, &record, &bytes, &length);
  if (result == 0) o->data = {bytes, length};
  FreeKmParams(&record);
  return result;
}

int32_t ErrorRecord(uint32_t command) {
  TEEC_Context context{};
  TEEC_Session session{};
  TEEC_Operation open{};
  open.started = 1;
  const TEEC_UUID uuid{};
  if (TEEC_InitializeContext(nullptr, &context) == 0) {
    if (TEEC_OpenSession(&context, &session, &uuid, 7, nullptr, &open, nullptr) == 0) {
      ObtainTaErrorCode(&session, command, kTaError);
      TEEC_CloseSession(&session);
    }
    TEEC_FinalizeContext(&context);
  }
  return 0;
}

}  // namespace

std::vector<Request> FunctionRequests() {
  const Fixture& f = fixture();
  return {
      // The marshalling functions.
      {"BuildKmParams",
       [](Outputs* o) {
         uint8_t* bytes = nullptr;
         uint32_t length = 0;
         const int32_t result = BuildKmParams(OperationParams(), &bytes, &length);
         if (bytes != nullptr) o->data = {bytes, length};
         return result;
       },
       "", kMarshals},
      {"AddKmParams", AddMany, "", kMarshals},
      {"BuildKeyCharacter",
       [&f](Outputs* o) {
         return BuildKeyCharacter(f.traits.data(), static_cast<uint32_t>(f.traits.size()),
                                  &o->traits);
       },
       "t:e",
       {{kEnomem}, {kEnomem}, {}, {}, {}}},
      {"BuildKeyParamSet",
       [&f](Outputs* o) {
         o->params = {};
         return BuildKeyParamSet(&o->params, f.params.data(),
                                 static_cast<uint32_t>(f.params.size()));
       },
       "p:e",
       {{kEnomem}, {kEnomem}, {}, {}, {}}},
      {"BuildFinalInput",
       [&f](Outputs* o) {
         const keymaster_blob_t part = Blob(f.mask);
         return BuildFinalInput(&part, &part, &o->data);
       },
       "",
       {{kEnomem}, {kEnomem}, {}, {}, {}}},
      {"BuildVerifyAuthInput",
       [&f](Outputs* o) {
         const keymaster_blob_t token = Blob(f.mask);
         const uint64_t challenge = 5;
         return static_cast<int32_t>(BuildVerifyAuthInput(&challenge, &token, &o->data));
       },
       "",
       {{kNoMemory}, {kUnknown}, {}, {}, {}}},
      // The commands on their own.
      {"TeeKmConfigure",
       Tee([](const uint8_t*, uint32_t, TeeBuffers*) { return TeeKmConfigure(1, 2); }), "", kSends},
      {"TeeGenerateKey", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeGenerateKey(in, length, t->a, &t->a_length, t->b, &t->b_length);
       }),
       "", kSends},
      {"TeeGetKeyCharacteristics", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeGetKeyCharacteristics(in, length, in, length, t->a, &t->a_length);
       }),
       "", kSends},
      {"TeeImportKey", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeImportKey(in, length, in, length, t->a, &t->a_length, t->b, &t->b_length, 1);
       }),
       "", kSends},
      {"TeeExportKey", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeExportKey(in, length, in, length, t->a, &t->a_length);
       }),
       "", kSends},
      {"TeeAttestKey", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeAttestKey(in, length, in, length, t->a, &t->a_length);
       }),
       "", kSends},
      {"TeeUpgrade", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeUpgrade(in, length, in, length, t->a, &t->a_length);
       }),
       "", kSends},
      {"TeeBegin", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeBegin(1, in, length, in, length, t->a, &t->a_length, &t->wide);
       }),
       "", kSends},
      {"TeeUpdate", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeUpdate(7, in, length, in, &length, t->a, &t->a_length, t->b, &t->b_length);
       }),
       "", kCopiesHandle},
      {"TeeFinish", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeFinish(7, in, length, in, length, t->a, &t->a_length, t->b, &t->b_length);
       }),
       "", kCopiesHandle},
      {"TeeAbort", Tee([](const uint8_t*, uint32_t, TeeBuffers*) { return TeeAbort(7); }), "",
       kSends},
      {"TeeDeleteKey", Tee([](const uint8_t* in, uint32_t length, TeeBuffers*) {
         return TeeDeleteKey(in, length);
       }),
       "", kSends},
      {"TeeVerifyAuthorization", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeeVerifyAuthorization(in, length, in, &length, t->a, &t->a_length, t->b, &t->wide);
       }),
       "", kSends},
      {"TeeEarlyBootEnded",
       Tee([](const uint8_t*, uint32_t, TeeBuffers*) { return TeeEarlyBootEnded(); }), "", kSends},
      {"TeeDeviceLocked",
       Tee([](const uint8_t*, uint32_t, TeeBuffers*) { return TeeDeviceLocked(1); }), "", kSends},
      {"TeegetHmacSharingParameters", Tee([](const uint8_t*, uint32_t, TeeBuffers* t) {
         return TeegetHmacSharingParameters(t->a, 32, t->b, 32);
       }),
       "", kSends},
      {"TeecomputeSharedHmac", Tee([](const uint8_t* in, uint32_t length, TeeBuffers* t) {
         return TeecomputeSharedHmac(in, length, t->a, &t->a_length);
       }),
       "", kSends},
      {"TeeDestroyAttestationIds",
       Tee([](const uint8_t*, uint32_t, TeeBuffers*) { return TeeDestroyAttestationIds(); }), "",
       kSends},
      // Reports, of which no failure comes back.
      {"ObtainTaErrorCode",
       [](Outputs*) { return ErrorRecord(4); },
       "",
       {{0}, {0}, {0}, {}, {0}},
       {0},
       {0},
       true},
      {"TeeosLogExceptionArchive",
       [](Outputs*) {
         TeeosLogExceptionArchive(nullptr);
         return 0;
       },
       "",
       {},
       {0}},
      {"ReportDfxServer",
       [](Outputs*) {
         const CaDfxInfo info{1, 2, 3, 4, "function", "ca", "ext"};
         return ReportDfxServer(&info);
       },
       "",
       {},
       {-1, -5}},
  };
}

}  // namespace test

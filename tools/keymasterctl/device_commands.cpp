// hmac-sharing, auth-token, verify-authorization, device-locked, early-boot-ended, configure, info,
// add-entropy, delete-all, destroy-ids

#include <keymaster/keymaster_configuration.h>
#include <keymaster_ts.h>

#include "tools/keymasterctl/auth_token.h"
#include "tools/keymasterctl/commands.h"
#include "tools/keymasterctl/errors.h"
#include "tools/keymasterctl/params.h"
#include "tools/keymasterctl/report.h"
#include "tools/keymasterctl/session.h"

namespace {

// The requests that have nothing to tell but that they are done.
void Done(const char* what, int32_t result, const char* line) {
  Check(what, result);
  Report().Say(line).Member("done", true).Member("note", line).Print();
}

}  // namespace

void RunHmacSharing(const Args& args) {
  Session session;
  const Bytes own = SharingParameters(&session);
  if (!args.Has("with")) {
    Report().Say(ToHex(own)).Member("parameters", ToHex(own)).Print();
    return;
  }
  Bytes sharing = JoinSharing(own, args.Texts("with"));
  OwnedBlob check;
  Check("computing the shared HMAC key",
        session->TivascomputeSharedHmac(sharing.data(), static_cast<unsigned>(sharing.size()),
                                        &check));
  Report().Say(ToHex(Copy(check))).Member("check", ToHex(Copy(check))).Print();
}

void RunAuthToken(const Args& args) {
  ResultFile output(args, Output::Content::kSecret);
  hw_auth_token_t token = {};
  token.challenge = args.Number("challenge").value_or(0);
  token.user_id = *args.Number("sid");
  token.authenticator_id = args.Number("authenticator-id").value_or(0);
  token.authenticator_type = args.Value("type", KM_TAG_USER_AUTH_TYPE).value_or(HW_AUTH_PASSWORD);
  token.timestamp = args.Number("timestamp").value_or(MillisecondsSinceBoot());
  Session session;
  output.Write(MakeAuthToken(token, JoinSharing(SharingParameters(&session), args.Texts("with"))));
  output.CommitAs("token");
}

void RunVerifyAuthorization(const Args& args) {
  const Bytes token = ReadFile(args.Text("token"));
  const keymaster_blob_t token_view = View(token);
  ParamList params;
  for (const std::string& text : args.Texts("param")) {
    params.AddNamed(text);
  }
  Session session;
  OwnedParamSet verified;
  TsVerificationToken reply = {};
  reply.parameters_verified = &verified;
  Check("verification", session->TivasVerifyAuthorization(args.Number("challenge").value_or(0),
                                                          params.set(), &token_view, &reply));
  Report()
      .Row("challenge", reply.challenge)
      .Row("timestamp", reply.timestamp, " ms since boot")
      .Row("security level", static_cast<uint32_t>(reply.security_level))
      .Row("mac", ToHex(Bytes(std::begin(reply.mac), std::end(reply.mac))))
      .Member("parameters verified", SetJson(verified))
      .Say("parameters verified:\n" + SetText(verified))
      .Print();
}

void RunDeviceLocked(const Args& args) {
  Session session;
  Done("device-locked", session->TivasKmDeviceLocked(args.Has("password-only")),
       "the device is locked");
}

void RunEarlyBootEnded(const Args&) {
  Session session;
  Done("early-boot-ended", session->TivasKmEarlyBootEnded(), "early boot has ended");
}

void RunConfigure(const Args& args) {
  const uint32_t os_version =
      args.Value("os-version", KM_TAG_OS_VERSION).value_or(keymaster::GetOsVersion());
  const uint32_t patch_level =
      args.Value("patch-level", KM_TAG_OS_PATCHLEVEL).value_or(keymaster::GetOsPatchlevel());
  Session session(Session::Start::kBare);
  session.Configure(os_version, patch_level);
  Report()
      .Say("configured for OS version " + std::to_string(os_version) + ", patch level " +
           std::to_string(patch_level))
      .Member("os version", os_version)
      .Member("os patch level", patch_level)
      .Print();
}

void RunInfo(const Args&) {
  Session session;
  Report()
      .Row("keymasterctl", KEYMASTERCTL_VERSION)
      .Row("keymaster", "4.1")
      .Row("OS version", keymaster::GetOsVersion())
      .Row("OS patch level", keymaster::GetOsPatchlevel())
      .Row("global version", IsGlobalVersion())
      .Row("enhanced keymaster", SupportEnhanceKeymaster())
      .Print();
}

void RunAddEntropy(const Args& args) {
  const Bytes data = ReadFile(args.Text("in", "-"));
  Session session;
  Done("add-entropy", session->TivasKmAddRngEntropy(data.data(), data.size()),
       "accepted; this keymaster has a generator of its own and takes no entropy from outside");
}

void RunDeleteAll(const Args&) {
  Session session;
  Done("delete-all", session->TivasKmDeleteAllKeys(),
       "accepted; this keymaster keeps no list of keys: delete them one by one");
}

void RunDestroyIds(const Args&) {
  Session session;
  Done("destroy-ids", session->TivasKmDestroyAttestationIds(),
       "accepted; this keymaster leaves the device's attestation ids as they are");
}

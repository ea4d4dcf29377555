// hmac-sharing, auth-token, verify-authorization

#include "auth_token.h"
#include "commands.h"
#include "describe.h"
#include "errors.h"
#include "names.h"
#include "params.h"
#include "report.h"

namespace {

struct SharingArgs {
  std::vector<std::string> with;
};

void RunHmacSharing(const SharingArgs& args) {
  Session session;
  const Bytes own = SharingParameters(session);
  if (args.with.empty()) {
    Report().Say(ToHex(own)).Text("parameters", ToHex(own)).Print();
    return;
  }
  Bytes sharing = JoinSharing(own, args.with);
  OwnedBlob check;
  Check("computing the shared HMAC key",
        session->TivascomputeSharedHmac(sharing.data(), static_cast<unsigned>(sharing.size()),
                                        &check));
  Report().Say(ToHex(Copy(check))).Text("check", ToHex(Copy(check))).Print();
}

struct TokenArgs {
  AuthTokenArgs token;
  std::vector<std::string> with;
  std::string out = "-";
};

void RunAuthToken(const TokenArgs& args) {
  NeedFileForJson(args.out);
  Session session;
  const Bytes sharing = JoinSharing(SharingParameters(session), args.with);
  const Bytes token = MakeAuthToken(args.token, sharing);
  WriteFile(args.out, token, Output::Access::kOwnerOnly);
  TellWritten("token", args.out, token.size());
}

struct VerifyArgs {
  uint64_t challenge = 0;
  std::string token;
  std::vector<std::string> params;
};

void RunVerifyAuthorization(const VerifyArgs& args) {
  const Bytes token = ReadFile(args.token);
  const keymaster_blob_t token_view = View(token);
  ParamList params;
  for (const std::string& text : args.params) params.AddText(text);
  Session session;
  OwnedParamSet verified;
  TsVerificationToken reply = {};
  reply.parameters_verified = &verified;
  Check("verification",
        session->TivasVerifyAuthorization(args.challenge, params.set(), &token_view, &reply));
  Report()
      .Row("challenge", reply.challenge)
      .Row("timestamp", reply.timestamp, " ms since boot")
      .Row("security level", static_cast<uint32_t>(reply.security_level))
      .Row("mac", ToHex(Bytes(std::begin(reply.mac), std::end(reply.mac))))
      .Member("parameters verified", SetJson(verified, 2))
      .Say("parameters verified:\n" + DescribeSet(verified))
      .Print();
}

}  // namespace

void AddAuthorizationCommands(CommandLine* line) {
  {
    const auto [command, args] = line->AddCommand<SharingArgs>("hmac-sharing", RunHmacSharing);
    command.Add("--with", &args->with, "Sharing parameters of the other instances").TakesList();
  }
  {
    const auto [command, args] = line->AddCommand<TokenArgs>("auth-token", RunAuthToken);
    command.Add("--sid", &args->token.sid, "Secure id of the user").Required();
    command.Add("--authenticator-id", &args->token.authenticator_id,
                "Secure id of the authenticator (default 0)");
    command.Add("--type", &args->token.type, "Kind of authenticator (default password)")
        .TakesNames(KM_TAG_USER_AUTH_TYPE);
    command.Add("--challenge", &args->token.challenge,
                "Operation that the token is for (default 0: none)");
    command.Add("--timestamp", &args->token.timestamp, "Milliseconds since boot (default: now)");
    command.Add("--with", &args->with, "The --with of hmac-sharing, if keys were shared")
        .TakesList();
    command.Add("-o,--out", &args->out, "Token file, - for standard output (default)")
        .Takes("FILE");
  }
  {
    const auto [command, args] =
        line->AddCommand<VerifyArgs>("verify-authorization", RunVerifyAuthorization);
    command.Add("--challenge", &args->challenge, "Challenge for the reply (default 0)");
    command.Add("--token,--auth-token", &args->token, "Token file").Takes("FILE").Required();
    command.Add("--param", &args->params, "Parameter to verify against, such as user-secure-id=42")
        .Takes("NAME=VALUE");
  }
}

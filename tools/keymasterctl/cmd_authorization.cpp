// hmac-sharing, auth-token, verify-authorization

#include "auth_token.h"
#include "commands.h"
#include "describe.h"
#include "errors.h"
#include "names.h"
#include "params.h"

namespace {

struct SharingArgs {
  std::vector<std::string> with;
};

void RunHmacSharing(const SharingArgs& args) {
  Session session;
  const Bytes own = SharingParameters(session);
  if (args.with.empty()) {
    printf("%s\n", ToHex(own).c_str());
    return;
  }
  Bytes sharing = JoinSharing(own, args.with);
  OwnedBlob check;
  Check("computing the shared HMAC key",
        session->TivascomputeSharedHmac(sharing.data(), static_cast<unsigned>(sharing.size()),
                                        &check));
  printf("%s\n", ToHex(Copy(check)).c_str());
}

struct TokenArgs {
  AuthTokenArgs token;
  std::vector<std::string> with;
  std::string out = "-";
};

void RunAuthToken(const TokenArgs& args) {
  Session session;
  const Bytes sharing = JoinSharing(SharingParameters(session), args.with);
  WriteFile(args.out, MakeAuthToken(args.token, sharing), Output::Access::kOwnerOnly);
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
  printf("challenge       %llu\n", static_cast<unsigned long long>(reply.challenge));
  printf("timestamp       %llu ms since boot\n", static_cast<unsigned long long>(reply.timestamp));
  printf("security level  %u\n", reply.security_level);
  printf("mac             %s\n", ToHex(Bytes(std::begin(reply.mac), std::end(reply.mac))).c_str());
  printf("parameters verified:\n%s", DescribeSet(verified).c_str());
}

}  // namespace

void AddAuthorizationCommands(const Registry& registry) {
  {
    const auto [command, args] = AddCommand<SharingArgs>(
        registry, "hmac-sharing", "Agree on an HMAC key with other keymaster instances",
        "hmac-sharing --with \"$(keymasterctl --state other hmac-sharing)\"\n"
        "Without --with it prints this TA's parameters; with it, the check, which is the same for\n"
        "all who share.",
        RunHmacSharing);
    command->add_option("--with", args->with, "Sharing parameters of the other instances")
        ->delimiter(',');
  }
  {
    const auto [command, args] = AddCommand<TokenArgs>(
        registry, "auth-token", "Make an auth token, as an authenticator of this device does",
        "auth-token --sid 42 --out user.token", RunAuthToken);
    command->add_option("--sid", args->token.sid, "Secure id of the user")->required();
    command->add_option("--authenticator-id", args->token.authenticator_id,
                        "Secure id of the authenticator (default 0)");
    TakeNames(KM_TAG_USER_AUTH_TYPE,
              command->add_option("--type", args->token.type,
                                  "Kind of authenticator (default password)"));
    command->add_option("--challenge", args->token.challenge,
                        "Operation that the token is for (default 0: none)");
    command->add_option("--timestamp", args->token.timestamp,
                        "Milliseconds since boot (default: now)");
    command->add_option("--with", args->with, "The --with of hmac-sharing, if keys were shared")
        ->delimiter(',');
    command->add_option("-o,--out", args->out, "Token file, - for standard output (default)");
  }
  {
    const auto [command, args] = AddCommand<VerifyArgs>(
        registry, "verify-authorization", "Have the TA verify an auth token",
        "verify-authorization --challenge 7 --token user.token", RunVerifyAuthorization);
    command->add_option("--challenge", args->challenge, "Challenge for the reply (default 0)");
    command->add_option("--token,--auth-token", args->token, "Token file")->required();
    command->add_option("--param", args->params,
                        "Parameter to verify against, such as user-secure-id=42");
  }
}

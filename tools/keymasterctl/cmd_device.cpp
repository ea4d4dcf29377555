// device-locked, early-boot-ended, configure, info, add-entropy, delete-all, destroy-ids

#include <keymaster/keymaster_configuration.h>
#include <keymaster_ts.h>

#include "commands.h"
#include "errors.h"
#include "params.h"
#include "session.h"

namespace {

struct LockArgs {
  bool password_only = false;
};

void RunDeviceLocked(const LockArgs& args) {
  Session session;
  Check("device-locked", session->TivasKmDeviceLocked(args.password_only));
  printf("the device is locked\n");
}

void RunEarlyBootEnded(const NoArgs&) {
  Session session;
  Check("early-boot-ended", session->TivasKmEarlyBootEnded());
  printf("early boot has ended\n");
}

struct ConfigureArgs {
  std::optional<uint32_t> os_version;
  std::optional<uint32_t> patch_level;
};

void RunConfigure(const ConfigureArgs& args) {
  Session session(Session::Start::kBare);
  session->SetSystemVersion(args.os_version.value_or(keymaster::GetOsVersion()),
                            args.patch_level.value_or(keymaster::GetOsPatchlevel()));
  unsigned int os_version = 0;
  unsigned int patch_level = 0;
  session->GetSystemVersion(&os_version, &patch_level);
  ParamList params;
  params.Add(KM_TAG_OS_VERSION, os_version);
  params.Add(KM_TAG_OS_PATCHLEVEL, patch_level);
  Check("configure", session->TivasKmConfigure(params.set()));
  printf("configured for OS version %u, patch level %u\n", os_version, patch_level);
}

void RunInfo(const NoArgs&) {
  Session session;
  printf("keymasterctl        %s\n", KEYMASTERCTL_VERSION);
  printf("keymaster           4.1\n");
  printf("OS version          %u\n", keymaster::GetOsVersion());
  printf("OS patch level      %u\n", keymaster::GetOsPatchlevel());
  printf("global version      %s\n", IsGlobalVersion() ? "yes" : "no");
  printf("enhanced keymaster  %s\n", SupportEnhanceKeymaster() ? "yes" : "no");
}

struct EntropyArgs {
  std::string in = "-";
};

void RunAddEntropy(const EntropyArgs& args) {
  const Bytes data = ReadFile(args.in);
  Session session;
  Check("add-entropy", session->TivasKmAddRngEntropy(data.data(), data.size()));
  printf("accepted; this keymaster has a generator of its own and takes no entropy from outside\n");
}

void RunDeleteAll(const NoArgs&) {
  Session session;
  Check("delete-all", session->TivasKmDeleteAllKeys());
  printf("accepted; this keymaster keeps no list of keys: delete them one by one\n");
}

void RunDestroyIds(const NoArgs&) {
  Session session;
  Check("destroy-ids", session->TivasKmDestroyAttestationIds());
  printf("accepted; this keymaster leaves the device's attestation ids as they are\n");
}

}  // namespace

void AddDeviceCommands(const Registry& registry) {
  {
    const auto [command, args] =
        AddCommand<LockArgs>(registry, "device-locked", "Tell the TA that the device was locked",
                             "device-locked --password-only", RunDeviceLocked);
    command->add_flag("--password-only", args->password_only,
                      "Only the password unlocks it, no fingerprint");
  }
  AddCommand<NoArgs>(registry, "early-boot-ended", "Tell the TA that early boot is over",
                     "early-boot-ended", RunEarlyBootEnded);
  {
    const auto [command, args] = AddCommand<ConfigureArgs>(
        registry, "configure", "Configure the TA with a system version",
        "configure --os-version 110000 --patch-level 202101\n"
        "Every other command does so with the platform's version, which KEYMASTER_OS_VERSION and\n"
        "KEYMASTER_OS_PATCHLEVEL in the environment replace.",
        RunConfigure);
    command->add_option("--os-version", args->os_version, "OS version as MMmmss");
    command->add_option("--patch-level", args->patch_level, "OS patch level as YYYYMM");
  }
  AddCommand<NoArgs>(registry, "info", "Show versions and features", "info", RunInfo);
  {
    const auto [command, args] =
        AddCommand<EntropyArgs>(registry, "add-entropy", "Offer entropy to the keymaster",
                                "add-entropy --in /etc/hostname", RunAddEntropy);
    command->add_option("-i,--in", args->in, "Entropy file, - for standard input (default)");
  }
  AddCommand<NoArgs>(registry, "delete-all", "Ask for the deletion of all keys", "delete-all",
                     RunDeleteAll);
  AddCommand<NoArgs>(registry, "destroy-ids", "Ask for the destruction of the attestation ids",
                     "destroy-ids", RunDestroyIds);
}

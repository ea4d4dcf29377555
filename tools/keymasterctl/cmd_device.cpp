// device-locked, early-boot-ended, configure, info, add-entropy, delete-all, destroy-ids

#include <keymaster/keymaster_configuration.h>
#include <keymaster_ts.h>

#include "commands.h"
#include "errors.h"
#include "params.h"
#include "report.h"
#include "session.h"

namespace {

// The requests that have nothing to tell but that they are done.
void Done(const char* line) {
  Report().Say(line).Member("done", "true").Text("note", line).Print();
}

struct LockArgs {
  bool password_only = false;
};

void RunDeviceLocked(const LockArgs& args) {
  Session session;
  Check("device-locked", session->TivasKmDeviceLocked(args.password_only));
  Done("the device is locked");
}

void RunEarlyBootEnded(const NoArgs&) {
  Session session;
  Check("early-boot-ended", session->TivasKmEarlyBootEnded());
  Done("early boot has ended");
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
  Report()
      .Say("configured for OS version " + std::to_string(os_version) + ", patch level " +
           std::to_string(patch_level))
      .Member("os version", std::to_string(os_version))
      .Member("os patch level", std::to_string(patch_level))
      .Print();
}

void RunInfo(const NoArgs&) {
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

struct EntropyArgs {
  std::string in = "-";
};

void RunAddEntropy(const EntropyArgs& args) {
  const Bytes data = ReadFile(args.in);
  Session session;
  Check("add-entropy", session->TivasKmAddRngEntropy(data.data(), data.size()));
  Done("accepted; this keymaster has a generator of its own and takes no entropy from outside");
}

void RunDeleteAll(const NoArgs&) {
  Session session;
  Check("delete-all", session->TivasKmDeleteAllKeys());
  Done("accepted; this keymaster keeps no list of keys: delete them one by one");
}

void RunDestroyIds(const NoArgs&) {
  Session session;
  Check("destroy-ids", session->TivasKmDestroyAttestationIds());
  Done("accepted; this keymaster leaves the device's attestation ids as they are");
}

}  // namespace

void AddDeviceCommands(CommandLine* line) {
  {
    const auto [command, args] = line->AddCommand<LockArgs>("device-locked", RunDeviceLocked);
    command.AddFlag("--password-only", &args->password_only,
                    "Only the password unlocks it, no fingerprint");
  }
  line->AddCommand<NoArgs>("early-boot-ended", RunEarlyBootEnded);
  {
    const auto [command, args] = line->AddCommand<ConfigureArgs>("configure", RunConfigure);
    command.Add("--os-version", &args->os_version, "OS version as MMmmss");
    command.Add("--patch-level", &args->patch_level, "OS patch level as YYYYMM");
  }
  line->AddCommand<NoArgs>("info", RunInfo);
  {
    const auto [command, args] = line->AddCommand<EntropyArgs>("add-entropy", RunAddEntropy);
    command.Add("-i,--in", &args->in, "Entropy file, - for standard input (default)").Takes("FILE");
  }
  line->AddCommand<NoArgs>("delete-all", RunDeleteAll);
  line->AddCommand<NoArgs>("destroy-ids", RunDestroyIds);
}

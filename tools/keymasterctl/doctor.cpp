// doctor: checks of the set-up that the tool works in. It works on copies, and changes nothing.

#include <errno.h>
#include <keymaster/keymaster_configuration.h>
#include <link.h>
#include <openssl/crypto.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tools/keymasterctl/auth_token.h"
#include "tools/keymasterctl/commands.h"
#include "tools/keymasterctl/errors.h"
#include "tools/keymasterctl/report.h"
#include "tools/keymasterctl/session.h"
#include "tools/keymasterctl/state.h"

namespace {

namespace fs = std::filesystem;

enum class Grade { kGood, kNote, kBroken };
constexpr const char* kWords[] = {"ok", "note", "broken"};

struct Finding {
  std::string subject;
  Grade grade;
  std::string found;
  std::string advice;  // what to do; empty where all is well
};

// Good where there is no trouble.
Finding Judge(const char* subject, const std::string& found, const std::string& trouble,
              const std::string& advice) {
  return trouble.empty() ? Finding{subject, Grade::kGood, found, ""}
                         : Finding{subject, Grade::kBroken, trouble, advice};
}

// Where each of the libraries was loaded from.
void CheckLibraries(std::vector<Finding>* findings) {
  const auto add = [](dl_phdr_info* info, size_t, void* out) {
    const fs::path path = info->dlpi_name;
    const std::string file = path.filename();
    const std::string name = file.substr(0, file.find('.'));
    for (const char* one : {"libkeymaster41_ts", "libkeymaster_support", "libteec", "liblog",
                            "libzubrel", "libqavix", "libsecurec", "libcrypto"}) {
      if (name == one) {
        static_cast<std::vector<Finding>*>(out)->push_back({name, Grade::kGood, path, ""});
      }
    }
    return 0;
  };
  dl_iterate_phdr(add, findings);
  findings->push_back({"libcrypto version", Grade::kGood, OpenSSL_version(OPENSSL_VERSION), ""});
}

Finding CheckSystem() {
  const uint32_t version = keymaster::GetOsVersion();
  const uint32_t patch = keymaster::GetOsPatchlevel();
  const std::string found =
      "OS version " + std::to_string(version) + ", patch level " + std::to_string(patch);
  const uint32_t month = patch % 100;
  const bool sound = version != 0 && patch / 100 >= 2000 && month >= 1 && month <= 12;
  return Judge("system version", found, sound ? "" : found,
               "set KEYMASTER_OS_VERSION as MMmmss and KEYMASTER_OS_PATCHLEVEL as YYYYMM");
}

Finding CheckFolder() {
  const std::string folder = StateFolder();
  struct stat status;
  const bool exists = stat(folder.c_str(), &status) == 0;
  const std::string trouble = StateTrouble();
  if (trouble.empty() && exists && (status.st_mode & 077) != 0) {
    return {"state folder", Grade::kNote, folder + " is open to other users",
            "run: chmod 700 " + Quoted(folder)};
  }
  return Judge("state folder", folder + (exists ? "" : " (will be made)"), trouble, kStateAdvice);
}

// Without TEE_WORKER the TEE client finds its own.
Finding CheckWorker() {
  const std::string named = Variable("TEE_WORKER");
  const bool own_process = Variable("TEE_HOST") == "process";
  const bool works = named.empty() || access(named.c_str(), X_OK) == 0;
  return Judge("TA host", own_process ? "a process of its own" : "this process",
               works ? "" : named + ": " + strerror(errno),
               "unset TEE_WORKER, or set it to the tee-worker");
}

Finding CheckEvents() {
  const fs::path sink = Variable("QAVIX_EVENTS");
  if (sink.empty() || sink == "-") {
    return {"fault events", Grade::kGood, sink.empty() ? "dropped" : "to standard error", ""};
  }
  const fs::path folder = sink.has_parent_path() ? sink.parent_path() : ".";
  const bool works = access(fs::exists(sink) ? sink.c_str() : folder.c_str(), W_OK) == 0;
  return Judge("fault events", "to " + sink.string(),
               works ? "" : sink.string() + ": " + strerror(errno),
               "set QAVIX_EVENTS to a file that you can write to, or unset it");
}

// Uses everything that the state holds: makes a key and unseals it, attests it, and opens the
// witness. Returns what failed; empty where nothing did.
std::string UseState() {
  try {
    Session session(Session::Start::kBare);
    ConfigureLatest(&session);
    SharingParameters(&session);
    ParamList params;
    for (const char* text :
         {"algorithm=ec", "key-size=256", "purpose=sign", "digest=sha256", "no-auth-required"}) {
      params.AddNamed(text);
    }
    OwnedKeyBlob key;
    Check("making a key", session->TivasKmGenerateKey(params.set(), &key, nullptr));
    ParamList attestation;
    attestation.Add(KM_TAG_ATTESTATION_CHALLENGE, Bytes{1});
    attestation.Add(KM_TAG_ATTESTATION_APPLICATION_ID, Bytes{1});
    OwnedChain chain;
    Check("attesting a key", session->TivasKmAttestKey(&key, attestation.set(), &chain));
    return WitnessOpens(&session) ? "" : "device_key is not the one that keys were made with";
  } catch (const Failure& failure) {
    return failure.what();
  }
}

// The files of the state that do not work, each tried alone.
std::vector<std::string> DamagedFiles() {
  std::vector<std::string> damaged;
  for (const std::string name : kStateFiles) {
    const Scratch scratch(Scratch::Host::kThisProcess,
                          [&name](const std::string& other) { return other != name; });
    if (!UseState().empty()) damaged.push_back(name);
  }
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(StateFolder(), error)) {
    constexpr uintmax_t kUsageSize = 16 + 32;  // two numbers and the boot's nonce
    const std::string name = entry.path().filename();
    if (name.compare(0, 6, "usage_") == 0 && entry.file_size(error) != kUsageSize) {
      damaged.push_back(name);
    }
  }
  return damaged;
}

// Tries the TA where it runs, on a copy of the state; what fails there is sought in the state.
void CheckTa(std::vector<Finding>* findings) {
  std::string trouble = StateTrouble();
  if (trouble.empty()) {
    const Scratch scratch(Scratch::Host::kAsSet, [](const std::string&) { return false; });
    trouble = UseState();
  }
  findings->push_back(Judge("keymaster TA", "makes, opens and attests keys", trouble,
                            "mend what else is broken; --verbose shows the library's log"));
  std::vector<std::string> damaged =
      StateTrouble().empty() ? DamagedFiles() : std::vector<std::string>();
  if (damaged.empty() && trouble.find("device_key") == 0) damaged.push_back("device_key");
  for (const std::string& name : damaged) {
    findings->push_back({"state file", Grade::kBroken, StateFolder() + "/" + name + " is damaged",
                         "restore it from a copy; without one, keys made with it are lost: use a "
                         "new --state folder"});
  }
}

void PrintText(const std::vector<Finding>& findings) {
  constexpr Color kColors[] = {Color::kGreen, Color::kYellow, Color::kRed};
  for (const Finding& finding : findings) {
    std::string word = kWords[static_cast<int>(finding.grade)];
    word.resize(8, ' ');
    printf("%s%-22s  %s\n", Paint(stdout, kColors[static_cast<int>(finding.grade)], word).c_str(),
           finding.subject.c_str(), finding.found.c_str());
    if (!finding.advice.empty()) printf("%*s-> %s\n", 8, "", finding.advice.c_str());
  }
}

}  // namespace

void RunDoctor(const Args&) {
  std::vector<Finding> findings;
  CheckLibraries(&findings);
  for (Finding (*check)() : {CheckSystem, CheckFolder, CheckWorker, CheckEvents}) {
    findings.push_back(check());
  }
  CheckTa(&findings);
  bool healthy = true;
  Json checks = Json::array();
  for (const Finding& finding : findings) {
    healthy = healthy && finding.grade != Grade::kBroken;
    checks.push_back({{"subject", finding.subject},
                      {"grade", kWords[static_cast<int>(finding.grade)]},
                      {"found", finding.found},
                      {"advice", finding.advice}});
  }
  if (!Style().json) PrintText(findings);
  Report()
      .Say(healthy ? "all is well" : "something is broken")
      .Member("healthy", healthy)
      .Member("checks", checks)
      .Print();
  if (!healthy) throw Failure("");
}

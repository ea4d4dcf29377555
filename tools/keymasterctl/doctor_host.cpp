// The checks that need no TA.

#include <errno.h>
#include <fcntl.h>
#include <keymaster/keymaster_configuration.h>
#include <limits.h>
#include <link.h>
#include <openssl/crypto.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "doctor.h"

namespace {

using Grade = Finding::Grade;

constexpr const char* kLibraries[][2] = {
    {"libkeymaster41_ts.so", "the keymaster back-end"},
    {"libkeymaster_support.so", "the keymaster support library"},
    {"libteec.so", "the TEE client"},
    {"liblog.so", "the log"},
    {"libzubrel.so", "the watchdog"},
    {"libqavix.so", "the event reports"},
    {"libsecurec.so", "the bounded memory functions"},
    {"libcrypto.so", "the cryptography"},
};

std::string FileName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string Tidy(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

std::vector<std::string> LoadedFiles() {
  std::vector<std::string> files;
  const auto add = [](dl_phdr_info* info, size_t, void* out) {
    static_cast<std::vector<std::string>*>(out)->emplace_back(info->dlpi_name);
    return 0;
  };
  dl_iterate_phdr(add, &files);
  return files;
}

// The loaded library whose name begins so; empty where there is none.
std::string Loaded(const std::string& name) {
  for (const std::string& file : LoadedFiles()) {
    if (FileName(file).compare(0, name.size(), name) == 0) return Tidy(file);
  }
  return "";
}

std::string Variable(const char* name) {
  const char* value = getenv(name);
  return value != nullptr ? value : "";
}

std::string StateFolder() {
  if (const std::string own = Variable("KEYMASTER_TA_STATE"); !own.empty()) return own;
  if (const std::string xdg = Variable("XDG_STATE_HOME"); !xdg.empty())
    return xdg + "/keymaster-ta";
  const std::string home = Variable("HOME");
  return home.empty() ? "" : home + "/.local/state/keymaster-ta";
}

// The error of making a file in a folder; 0 when that works. Permissions alone do not tell: they
// do not hold for root, and a file system can be read-only or full.
int TryToWrite(const std::string& folder) {
  std::string path = folder + "/.doctor-XXXXXX";
  const int fd = mkstemp(path.data());
  if (fd < 0) return errno;
  const bool written = write(fd, "x", 1) == 1;
  const int error = written ? 0 : errno;
  close(fd);
  unlink(path.c_str());
  return error;
}

Finding StateTrouble(const std::string& folder, int error) {
  return {"state folder", Grade::kBroken, folder + ": " + strerror(error),
          "give a folder that you can write to with --state DIR or KEYMASTER_TA_STATE"};
}

// The nearest folder above that exists.
std::string ExistingAbove(std::string path) {
  struct stat status;
  while (stat(path.c_str(), &status) != 0) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    path.resize(slash);
    if (path.empty()) return "/";
  }
  return path;
}

}  // namespace

std::vector<Finding> CheckLibraries() {
  std::vector<Finding> findings;
  for (const auto& [name, what] : kLibraries) {
    const std::string path = Loaded(name);
    const std::string subject = std::string(name).substr(0, strlen(name) - 3);
    if (path.empty()) {
      findings.push_back({subject, Grade::kBroken, "is not loaded",
                          std::string("install ") + what + " where the loader finds it"});
    } else {
      findings.push_back({subject, Grade::kGood, path, ""});
    }
  }
  return findings;
}

Finding CheckState() {
  const std::string folder = StateFolder();
  if (folder.empty()) return {"state folder", Grade::kBroken, "none is named", "give --state DIR"};
  struct stat status;
  const bool exists = stat(folder.c_str(), &status) == 0;
  if (!exists && errno != ENOENT) return StateTrouble(folder, errno);
  if (exists && !S_ISDIR(status.st_mode)) return StateTrouble(folder, ENOTDIR);
  const int error = TryToWrite(exists ? folder : ExistingAbove(folder));
  if (error != 0) return StateTrouble(folder, error);
  if (exists && (status.st_mode & 077) != 0) {
    return {"state folder", Grade::kNote, folder + " is open to other users",
            "run: chmod 700 " + folder};
  }
  return {"state folder", Grade::kGood, folder + (exists ? "" : " (will be made)"), ""};
}

Finding CheckWorker() {
  if (Variable("TEE_HOST") != "process") {
    return {"TA host", Grade::kGood, "this process (TEE_HOST=" + Variable("TEE_HOST") + ")", ""};
  }
  const std::string named = Variable("TEE_WORKER");
  const std::string client = Loaded("libteec.so");
  const std::string folder = client.substr(0, client.rfind('/') + 1);
  std::string path = named.empty() ? folder + "tee-worker" : named;
  if (named.empty() && access(path.c_str(), X_OK) != 0) path = folder + "../bin/tee-worker";
  if (access(path.c_str(), X_OK) == 0) return {"TA host", Grade::kGood, Tidy(path), ""};
  const std::string trouble = path + ": " + strerror(errno);
  if (named.empty()) {
    return {"TA host", Grade::kBroken, trouble, "install tee-worker beside libteec.so"};
  }
  return {"TA host", Grade::kBroken, trouble, "unset TEE_WORKER, or set it to the tee-worker"};
}

Finding CheckEvents() {
  const std::string sink = Variable("QAVIX_EVENTS");
  if (sink.empty() || sink == "-") {
    return {"fault events", Grade::kGood, sink.empty() ? "dropped" : "to standard error", ""};
  }
  const int fd = open(sink.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    return {"fault events", Grade::kBroken, sink + ": " + strerror(errno),
            "set QAVIX_EVENTS to a file that you can write to, or unset it"};
  }
  close(fd);
  return {"fault events", Grade::kGood, "to " + sink, ""};
}

Finding CheckSystem() {
  const uint32_t version = keymaster::GetOsVersion();
  const uint32_t patch = keymaster::GetOsPatchlevel();
  const std::string found =
      "OS version " + std::to_string(version) + ", patch level " + std::to_string(patch);
  const uint32_t month = patch % 100;
  const bool sound = version != 0 && patch / 100 >= 2000 && month >= 1 && month <= 12;
  if (sound) return {"system version", Grade::kGood, found, ""};
  return {"system version", Grade::kBroken, found,
          "set KEYMASTER_OS_VERSION as MMmmss and KEYMASTER_OS_PATCHLEVEL as YYYYMM"};
}

Finding CheckCrypto() {
  const std::string version = OpenSSL_version(OPENSSL_VERSION);
  return {"libcrypto version", Grade::kGood, version, ""};
}

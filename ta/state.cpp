#include "ta/state.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <stdexcept>

#include "ta/evp.h"

namespace ta {
namespace {

constexpr char kVersionFile[] = "system_version";

std::string Variable(const char* name) {
  const char* value = getenv(name);
  return value == nullptr ? "" : value;
}

std::string FolderName() {
  std::string own = Variable("KEYMASTER_TA_STATE");
  if (!own.empty()) return own;
  const std::string xdg = Variable("XDG_STATE_HOME"), home = Variable("HOME");
  RequireState(!xdg.empty() || !home.empty(), "no folder is named");
  return xdg.empty() ? home + "/.local/state/keymaster-ta" : xdg + "/keymaster-ta";
}

// Makes the folder and those above it; only the folder itself is closed to others.
std::string EnsureFolder() {
  std::string folder = FolderName();
  struct stat status {};
  if (stat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return folder;
  for (size_t end = folder.find('/', 1); end != std::string::npos;
       end = folder.find('/', end + 1)) {
    mkdir(folder.substr(0, end).c_str(), 0755);
  }
  RequireState(mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST, "cannot make folder");
  return folder;
}

void WriteAll(int fd, ByteView content) {
  for (size_t done = 0; done < content.size;) {
    const ssize_t written = TEMP_FAILURE_RETRY(write(fd, content.data + done, content.size - done));
    RequireState(written > 0, "cannot write");
    done += static_cast<size_t>(written);
  }
  RequireState(fsync(fd) == 0, "cannot write");
}

// Makes a new name in the folder last, whatever happens to the system.
void SyncFolder() {
  const OpenFile folder(open(EnsureFolder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // A file system that cannot do this says EINVAL.
  RequireState(folder.fd >= 0 && (fsync(folder.fd) == 0 || errno == EINVAL), "cannot write");
}

// Writes a file of a name nobody else uses and returns the name.
std::string WriteTemporary(const std::string& path, ByteView content) {
  std::string name = path + ".XXXXXX";
  const OpenFile file(mkostemp(name.data(), O_CLOEXEC));
  RequireState(file.fd >= 0, "cannot make file");
  try {
    WriteAll(file.fd, content);
  } catch (...) {
    unlink(name.c_str());
    throw;
  }
  return name;
}

// The version as this process was told it; the file is for processes that are not told.
struct ConfiguredVersion {
  std::mutex mutex;
  std::string folder;
  SystemVersion version;
};

ConfiguredVersion& Configured() {
  // Never destroyed: commands may come while the process ends.
  static auto& configured = *new ConfiguredVersion();
  return configured;
}

}  // namespace

void RequireState(bool success, const char* failure) {
  if (!success) throw std::runtime_error(std::string("keymaster TA state: ") + failure);
}

std::string StateFile(const std::string& name) { return EnsureFolder() + "/" + name; }

bool ReadStateFile(const std::string& name, SecureBytes* out) {
  const OpenFile file(open(StateFile(name).c_str(), O_RDONLY | O_CLOEXEC));
  if (file.fd < 0) {
    // What is there and cannot be read must not pass for a fresh start.
    RequireState(errno == ENOENT, "cannot read");
    return false;
  }
  struct stat status {};
  RequireState(fstat(file.fd, &status) == 0, "cannot read");
  out->resize(static_cast<size_t>(status.st_size));
  for (size_t done = 0; done < out->size();) {
    const ssize_t got = TEMP_FAILURE_RETRY(read(file.fd, out->data() + done, out->size() - done));
    RequireState(got > 0, "cannot read");
    done += static_cast<size_t>(got);
  }
  return true;
}

void ReplaceStateFile(const std::string& name, ByteView content) {
  const std::string path = StateFile(name);
  const std::string temporary = WriteTemporary(path, content);
  if (rename(temporary.c_str(), path.c_str()) != 0) {
    unlink(temporary.c_str());
    RequireState(false, "cannot replace file");
  }
  SyncFolder();
}

bool HasStateFile(const std::string& name) {
  if (access(StateFile(name).c_str(), F_OK) == 0) return true;
  RequireState(errno == ENOENT, "cannot read");
  return false;
}

bool CreateStateFile(const std::string& name, ByteView content) {
  const std::string path = StateFile(name);
  const std::string temporary = WriteTemporary(path, content);
  // A link, unlike a rename, never replaces what another process just put there.
  const int linked = link(temporary.c_str(), path.c_str());
  const int reason = errno;
  unlink(temporary.c_str());
  RequireState(linked == 0 || reason == EEXIST, "cannot create file");
  SyncFolder();
  return linked == 0;
}

SecureBytes LoadOrCreate(const std::string& name, SecureBytes (*make)()) {
  SecureBytes content;
  if (!ReadStateFile(name, &content)) {
    CreateStateFile(name, make());
    // Another process may have been first: what the folder holds counts.
    RequireState(ReadStateFile(name, &content), "a file vanished");
  }
  return content;
}

SecureBytes LoadOrCreateSecret(const std::string& name) {
  constexpr size_t kSize = 32;
  SecureBytes secret = LoadOrCreate(name, [] {
    SecureBytes fresh(kSize);
    FillRandom(fresh.data(), fresh.size());
    return fresh;
  });
  RequireState(secret.size() == kSize, "a secret is damaged");
  return secret;
}

OpenFile::~OpenFile() {
  if (fd >= 0) close(fd);
}

StateLock::StateLock()
    : OpenFile(open(StateFile("lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
  RequireState(fd >= 0 && TEMP_FAILURE_RETRY(flock(fd, LOCK_EX)) == 0, "cannot lock");
}

SecureBytes DeviceKey(const std::string& label) {
  return HmacSha256(LoadOrCreateSecret("device_key"), std::string_view{label});
}

void SetSystemVersion(const SystemVersion& version) {
  ReplaceRecord(kVersionFile, version);
  ConfiguredVersion& configured = Configured();
  const std::lock_guard<std::mutex> guard(configured.mutex);
  configured.folder = FolderName();
  configured.version = version;
}

bool GetSystemVersion(SystemVersion* version) {
  ConfiguredVersion& configured = Configured();
  const std::lock_guard<std::mutex> guard(configured.mutex);
  if (const std::string folder = FolderName(); configured.folder != folder) {
    if (!ReadRecord(kVersionFile, &configured.version)) return false;
    configured.folder = folder;
  }
  *version = configured.version;
  return true;
}

}  // namespace ta

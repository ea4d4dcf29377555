#include "tools/keymasterctl/state.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "tools/keymasterctl/errors.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kWitness = "witness";
constexpr size_t kSmallestBlob = 1 + 12 + 16;  // version, nonce, tag
constexpr uint8_t kBlobVersion = 1;

bool IsForeign(const fs::path& folder) {
  return !fs::is_empty(folder) &&
         std::none_of(std::begin(kStateFiles), std::end(kStateFiles),
                      [&folder](const char* name) { return fs::exists(folder / name); });
}

// Characteristics tell whether a key opens: as it is, or after an upgrade.
bool Opens(Session* session, const Bytes& blob, const ParamList& binding) {
  const keymaster_key_blob_t view = KeyView(blob);
  OwnedCharacteristics ignored;
  const int32_t result =
      (*session)->TivasKmGetKeyCharacteristics(&view, binding.BytesOf(KM_TAG_APPLICATION_ID),
                                               binding.BytesOf(KM_TAG_APPLICATION_DATA), &ignored);
  return result == 0 || result == KM_ERROR_KEY_REQUIRES_UPGRADE;
}

// Whether the TA opens a key without the files whose names begin so, at its own version or later.
bool OpensWithout(const char* skipped, bool at_latest, const Bytes& blob,
                  const ParamList& binding) {
  const Scratch scratch(Scratch::Host::kThisProcess, [skipped](const std::string& name) {
    return name.compare(0, strlen(skipped), skipped) == 0;
  });
  Session session;
  if (at_latest) ConfigureLatest(&session);
  return Opens(&session, blob, binding);
}

// Whether a file of that name holds what the TA knows of a single key.
bool IsRecord(const std::string& name) {
  return name.compare(0, 6, "usage_") == 0 || name.compare(0, 8, "deleted_") == 0;
}

// A deletion opens a key whoever it belongs to.
bool CanBeDeleted(const Bytes& blob) {
  const Scratch scratch(Scratch::Host::kThisProcess, IsRecord);
  Session session;
  const keymaster_key_blob_t view = KeyView(blob);
  return session->TivasKmDeletekey(&view) == 0;
}

}  // namespace

std::string Variable(const char* name) {
  const char* const value = getenv(name);
  return value != nullptr ? value : "";
}

std::string StateFolder() {
  const std::string own = Variable("KEYMASTER_TA_STATE");
  const std::string xdg = Variable("XDG_STATE_HOME");
  const std::string home = Variable("HOME");
  const std::string home_state = home.empty() ? "" : home + "/.local/state/keymaster-ta";
  return !own.empty() ? std::string(own) : xdg.empty() ? home_state : xdg + "/keymaster-ta";
}

std::string StateTrouble() {
  const std::string name = StateFolder();
  if (name.empty()) return "no state folder is named";
  std::error_code error;
  fs::path folder = name;
  while (!folder.empty() && !fs::exists(folder, error)) {
    folder = folder.parent_path();
  }
  folder = folder.empty() ? "." : folder;
  const std::string about = "the state folder " + name + " cannot be used: ";
  if (!fs::is_directory(folder, error)) return about + folder.string() + " is no folder";
  if (access(folder.c_str(), R_OK | W_OK | X_OK) != 0) {
    return about + (folder == name ? "" : folder.string() + ": ") + strerror(errno);
  }
  const bool foreign = fs::exists(name) && IsForeign(name);
  return foreign ? about + "it holds other files, and no state of a keymaster" : "";
}

QuietEnvironment::QuietEnvironment() {
  for (const char* name : {"TEE_FAULT", "TEE_TRACE", "QAVIX_EVENTS"}) {
    Set(name, nullptr);
  }
  Set("ANDROID_LOG_TAGS", "*:S");
}

QuietEnvironment::~QuietEnvironment() {
  for (const auto& [name, value] : before_) {
    value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
  }
}

void QuietEnvironment::Set(const char* name, const char* value) {
  const char* const before = getenv(name);
  before_[name] = before != nullptr ? std::optional<std::string>(before) : std::nullopt;
  value != nullptr ? setenv(name, value, 1) : unsetenv(name);
}

Scratch::Scratch(Host host, const std::function<bool(const std::string&)>& skips) {
  // A folder in memory keeps the copied secrets off the disk.
  const bool in_memory = access("/dev/shm", W_OK | X_OK) == 0;
  const fs::path parent = in_memory ? "/dev/shm" : fs::temp_directory_path();
  std::string name = parent / "keymasterctl-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) throw SystemFailure("cannot make", name);
  folder_ = name;
  const std::string from = StateFolder();
  environment_.Set("KEYMASTER_TA_STATE", folder_.c_str());
  if (host == Host::kThisProcess) environment_.Set("TEE_HOST", nullptr);
  std::error_code error;
  for (const fs::directory_entry& file : fs::directory_iterator(from, error)) {
    if (file.is_regular_file() && !skips(file.path().filename())) {
      fs::copy_file(file, folder_ / file.path().filename(), error);
    }
  }
}

Scratch::~Scratch() {
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

void KeepWitness(Session* session) {
  const std::string path = StateFolder() + "/" + kWitness;
  std::error_code error;
  if (!fs::exists(StateFolder(), error) || fs::exists(path, error)) return;
  const QuietEnvironment undisturbed;
  ParamList params;
  params.Add(KM_TAG_ALGORITHM, KM_ALGORITHM_AES);
  params.Add(KM_TAG_KEY_SIZE, 128);
  params.Add(KM_TAG_NO_AUTH_REQUIRED, 1);
  OwnedKeyBlob blob;
  if ((*session)->TivasKmGenerateKey(params.set(), &blob, nullptr) != 0) return;
  Output witness(path, Output::Content::kSecret);
  witness.Write(Copy(blob));
  witness.Commit();
}

bool WitnessOpens(Session* session) {
  const std::string path = StateFolder() + "/" + kWitness;
  return access(path.c_str(), F_OK) != 0 || Opens(session, ReadFile(path), ParamList());
}

void ConfigureLatest(Session* session) { session->Configure(999999, 999912); }

std::string DiagnoseKey(const Bytes& blob, const ParamList& binding) {
  const char kPem[] = "-----BEGIN ";
  if (blob.size() > sizeof(kPem) && memcmp(blob.data(), kPem, sizeof(kPem) - 1) == 0) {
    return "this is a PEM file: keymasterctl import makes a key file of a private key";
  }
  if (blob.size() < kSmallestBlob || blob[0] != kBlobVersion) {
    return "this is no key file of this keymaster, or its beginning is damaged";
  }
  constexpr const char* kNoFile = "/";
  if (OpensWithout(kNoFile, true, blob, binding)) {
    return OpensWithout(kNoFile, false, blob, binding)
               ? "nothing is wrong with the key, which opens now: run the same command again; if "
                 "it fails each time, keymasterctl doctor tells what is wrong with the set-up"
               : "the key is of a later system version than this one: see keymasterctl info";
  }
  if (OpensWithout("deleted_", true, blob, binding)) {
    return "the key was deleted in the TA; nothing brings it back";
  }
  if (CanBeDeleted(blob)) {
    return "the key is whole: it needs the --app-id and --app-data that it was made with";
  }
  return "the key file is damaged, or was made under another state folder than " + StateFolder();
}

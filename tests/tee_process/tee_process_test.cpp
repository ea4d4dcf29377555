// The TA in a process of its own: what the caller sees when that dies, hangs or lies.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

#include "platform/tee_client/sessions.h"
#include "platform/tee_client/worker.h"
#include "tests/ta/ta_client.h"
#include "tests/tee_process/failing_app.h"

namespace {

constexpr uint32_t kDead = TEEC_ERROR_TARGET_DEAD, kShort = TEEC_ERROR_SHORT_BUFFER;
constexpr TEEC_UUID kKeymaster = {0x07070707, 0x0707, 0x0707, {7, 7, 7, 7, 7, 7, 7, 7}};

std::vector<Str> Entries(const Str& folder) {
  std::vector<Str> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

// Zombies count.
std::vector<pid_t> Children(pid_t parent = getpid()) {
  std::vector<pid_t> found;
  for (const Str& name : Entries("/proc")) {
    std::ifstream file("/proc/" + name + "/stat");
    Str pid, comm, state;
    pid_t of = 0;
    if (file >> pid >> comm >> state >> of && of == parent) found.push_back(atoi(pid.c_str()));
  }
  return found;
}

struct Client : Commands {
  TEEC_Context context = {};
  TEEC_Session session = {};
  uint32_t origin = 0;
  explicit Client(const TEEC_UUID& app, uint32_t opened = 0) {
    EXPECT_EQ(TEEC_InitializeContext(nullptr, &context), 0u);
    EXPECT_EQ(Open(&session, app), opened);
  }
  ~Client() override { TEEC_FinalizeContext(&context); }

  uint32_t Open(TEEC_Session* opened, const TEEC_UUID& app = kFailingApp) {
    return TEEC_OpenSession(&context, opened, &app, 7, nullptr, nullptr, &origin);
  }
  uint32_t Run(uint32_t command, Slot s0 = {}, Slot s1 = {}, Slot s2 = {}, Slot s3 = {}) override {
    return RunOn(&session, command, {s0, s1, s2, s3});
  }
  uint32_t RunOn(TEEC_Session* on, uint32_t command, const std::vector<Slot>& given) {
    TEEC_Operation operation = {};
    operation.started = 1;
    for (uint32_t i = 0; i < given.size(); ++i) {
      Slot& slot = slots[i] = given[i];
      slot.out =
          slot.in + Str(slot.capacity > slot.in.size() ? slot.capacity - slot.in.size() : 0, '?');
      operation.paramTypes |= slot.type << (4 * i);
      operation.params[i].value = {slot.a, slot.b};
      if (slot.type < 4) continue;
      operation.params[i].tmpref = {slot.out.data(), static_cast<uint32_t>(slot.out.size())};
    }
    const uint32_t result = TEEC_InvokeCommand(on, command, &operation, &origin);
    for (uint32_t i = 0; i < given.size(); ++i) {
      slots[i].capacity = operation.params[i].tmpref.size;
      slots[i].a = operation.params[i].value.a;
      slots[i].b = operation.params[i].value.b;
      if (slots[i].type > 4 && result == 0) slots[i].out.resize(slots[i].capacity);
    }
    return result;
  }
  Str Sign() {
    EXPECT_EQ(Operate(kSign, {{KM_TAG_MAC_LENGTH, 256}}, "", 1), 0u);
    return output;
  }
};

const Ps kHmacKey = {{KM_TAG_ALGORITHM, KM_ALGORITHM_HMAC}, {KM_TAG_KEY_SIZE, 256},
                     {KM_TAG_DIGEST, KM_DIGEST_SHA_2_256},  {KM_TAG_PURPOSE, KM_PURPOSE_SIGN},
                     {KM_TAG_MIN_MAC_LENGTH, 256},          {KM_TAG_NO_AUTH_REQUIRED, 1}};

class TeeProcess : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TEE_HOST", "process", 1);
    Str folder = testing::TempDir() + "tee_process_XXXXXX";
    setenv("KEYMASTER_TA_STATE", mkdtemp(folder.data()), 1);
    for (const char* name : {"TEE_WORKER", "TEE_FAULT", "TEE_TRACE", "TEE_TIMEOUT_MS"}) {
      unsetenv(name);
    }
  }
  // Nothing stays behind: neither a worker or what is left of it, nor a descriptor.
  void TearDown() override {
    EXPECT_EQ(Children(), std::vector<pid_t>());
    EXPECT_EQ(Entries("/proc/self/fd").size(), files_);
    std::filesystem::remove_all(getenv("KEYMASTER_TA_STATE"));
  }
  static void UseFailingApp() {
    const auto self = std::filesystem::read_symlink("/proc/self/exe");
    setenv("TEE_WORKER", (self.parent_path() / "tee_process_worker").c_str(), 1);
  }
  const size_t files_ = Entries("/proc/self/fd").size();
};

TEST_F(TeeProcess, AKilledWorkerLosesOperationsAndNoKey) {
  Client client(kKeymaster);
  ASSERT_EQ(client.Configure(kOsVersion, kPatchlevel), 0u);
  ASSERT_EQ(client.Generate(kHmacKey), 0u);
  const Str signature = client.Sign();
  EXPECT_EQ(signature.size(), 32u);
  ASSERT_EQ(client.Begin(kSign, {{KM_TAG_MAC_LENGTH, 256}}), 0u);
  kill(Children().at(0), SIGKILL);
  EXPECT_EQ(client.Update("x"), kDead);
  TEEC_CloseSession(&client.session);
  ASSERT_EQ(client.Open(&client.session, kKeymaster), 0u);
  EXPECT_EQ(client.Update("x"), Km(KM_ERROR_INVALID_OPERATION_HANDLE));
  EXPECT_EQ(client.Sign(), signature);
}

TEST_F(TeeProcess, EveryDeathIsTargetDeadUntilTheNextSession) {
  UseFailingApp();
  struct {
    const char* how;
    uint32_t command;
    int signal_before, signal_during;
    const char *fault, *limit;
  } const kCases[] = {
      {"between calls", kFill, SIGKILL, 0, "", ""},
      {"under a call", kHang, 0, SIGKILL, "", ""},
      {"by its own fault", kAbort, 0, 0, "", ""},
      {"by a planned crash", kFill, 0, 0, "cmd=1,crash=1", ""},
      {"stopped", kHang, SIGSTOP, 0, "", "200"},
      {"too slow", kHang, 0, 0, "", "200"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.how);
    setenv("TEE_FAULT", row.fault, 1);
    Client client(kFailingApp);
    TEEC_Session other = {}, fresh = {};
    ASSERT_EQ(client.Open(&other), 0u);
    const pid_t worker = Children().at(0);
    if (row.signal_before != 0) kill(worker, row.signal_before);
    setenv("TEE_TIMEOUT_MS", row.limit, 1);
    auto call = std::async(std::launch::async, [&] { return client.Run(row.command); });
    if (row.signal_during != 0) usleep(50000), kill(worker, row.signal_during);
    EXPECT_EQ(call.get(), kDead);
    unsetenv("TEE_TIMEOUT_MS");
    EXPECT_EQ(client.origin, TEEC_ORIGIN_TEE);
    EXPECT_EQ(client.RunOn(&other, kFill, {Out(8)}), kDead);
    TEEC_CloseSession(&other);
    ASSERT_EQ(client.Open(&fresh), 0u);
    EXPECT_EQ(client.RunOn(&fresh, kFill, {Out(8)}), 0u);
    EXPECT_EQ(client.Run(kFill), kDead);
    // Idle connections die with their worker.
    TEEC_CloseSession(&fresh);
    kill(Children().at(0), SIGKILL);
    siginfo_t status = {};
    ASSERT_EQ(waitid(P_ALL, 0, &status, WEXITED | WNOWAIT), 0);
    ASSERT_EQ(client.Open(&fresh), 0u);
    EXPECT_EQ(client.RunOn(&fresh, kFill, {Out(8)}), 0u);
  }
}

// Sessions of all sizes on more threads than connections are kept for, failing and not.
TEST_F(TeeProcess, NoSessionMeetsTheBytesOfAnother) {
  UseFailingApp();
  for (const char* host : {"process", "caller"}) {
    setenv("TEE_HOST", host, 1);
    Client keeps_the_worker(kFailingApp);
    std::vector<std::future<void>> threads;
    for (uint32_t thread = 0; thread < 12; ++thread) {
      threads.push_back(std::async(std::launch::async, [thread] {
        for (uint32_t size = 2 + thread; size < (3u << 20); size = 16 * size + thread) {
          Client client(kFailingApp);
          const Str text(size, static_cast<char>('a' + thread));
          EXPECT_EQ(client.Run(kEcho, In(text), Out(size - 1)), TEEC_ERROR_GENERIC);
          EXPECT_EQ(client.Run(kEcho, In(text), Out(size + thread)), 0u);
          EXPECT_TRUE(client.slots[1].out == text && client.slots[0].out == text);
        }
      }));
    }
    for (auto& thread : threads) {
      thread.get();
    }
  }
}

TEST_F(TeeProcess, SessionsMeetInOneWorkerUpToABound) {
  UseFailingApp();
  constexpr uint32_t kThreads = 16;
  Client client(kFailingApp);
  std::vector<std::future<uint32_t>> calls;
  for (uint32_t i = 0; i < kThreads; ++i) {
    calls.push_back(std::async(std::launch::async, [] {
      Client own(kFailingApp);
      const Slot expected = {TEEC_VALUE_INPUT, {}, 0, kThreads, 0, {}};
      return own.Run(kMeet, {}, expected);
    }));
  }
  for (auto& call : calls) {
    EXPECT_EQ(call.get(), 0u);
  }
  EXPECT_EQ(Children().size(), 1u);
  TEEC_Session session = {};
  for (int open = 1; open < 64; ++open) {
    ASSERT_EQ(client.Open(&session), 0u);
  }
  TEEC_Session refused = {};
  EXPECT_EQ(client.Open(&refused), TEEC_ERROR_BUSY);
  TEEC_CloseSession(&session);
  EXPECT_EQ(client.Open(&session), 0u);
}

TEST_F(TeeProcess, FaultPlansBendWhatTheCallerSees) {
  UseFailingApp();
  constexpr uint32_t kOom = TEEC_ERROR_OUT_OF_MEMORY;
  struct {
    const char* plan;
    uint32_t results[3], size;  // the size after the first call
    int least_ms;
  } const kCases[] = {
      {"cmd=1,code=0xFFFF000C", {kOom, 0, 0}, 8, 0},
      {"cmd=2,code=0xFFFF000C", {0, 0, 0}, 5, 0},
      {"cmd=1,code=0xFFFF000C,nth=2", {0, kOom, 0}, 5, 0},
      {"cmd=1,times=2,nth=2,code=0xFFFF000C", {0, kOom, kOom}, 5, 0},
      {"cmd=1,delay=60", {0, 0, 0}, 5, 60},
      {"cmd=1,length=7", {0, 0, 0}, 7, 0},
      {"cmd=1,length=9", {kShort, 0, 0}, 9, 0},
      {"cmd=1,length=9,lie=1", {0, 0, 0}, 9, 0},
      {"cmd=1,garbage=1,times=3", {0, 0, 0}, 8, 0},
      {"cmd=1,crash=1", {kDead, kDead, kDead}, 8, 0},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.plan);
    Client client(kFailingApp);
    setenv("TEE_FAULT", row.plan, 1);
    const auto start = std::chrono::steady_clock::now();
    for (const uint32_t& result : row.results) {
      EXPECT_EQ(client.Run(kFill, Out(8)), result);
      EXPECT_TRUE(&result != row.results || client.slots[0].capacity == row.size);
      const bool is_random = client.slots[0].out.compare(0, 5, Str(5, 0x22)) != 0;
      EXPECT_EQ(is_random && result == 0, strstr(row.plan, "garbage") != nullptr);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(row.least_ms));
  }
}

TEST_F(TeeProcess, TraceNamesWhatItMayShow) {
  UseFailingApp();
  Client client(kFailingApp);
  const Ps key = {{KM_TAG_APPLICATION_ID, Str("app")},
                  {KM_TAG_ATTESTATION_CHALLENGE, Str("c")},
                  {KM_TAG_KEY_SIZE, 256}};
  const Str command =
      "tee: command 4 ImportKey (MEMREF_TEMP_INPUT 60 00000000030000005902009000000000.., "
      "MEMREF_TEMP_INPUT 6, MEMREF_TEMP_OUTPUT 9->9, VALUE_INOUT 0x1,0x2->0x1,0x2) "
      "result 0xffff000a from TA\n";
  const Str label = "tee:   params[0] list 2: ";
  const Str id = label + "APPLICATION_ID (0x90000259) = 3 bytes";
  const Str rest = "\n" + label + "ATTESTATION_CHALLENGE (0x900002c4) = 1 bytes 63\n" + label +
                   "KEY_SIZE (0x30000003) = 256\n";
  struct {
    const char* level;
    Str shown;
  } const kCases[] = {{"0", ""},
                      {"1", command},
                      {"params", command + id + rest},
                      {"secrets", command + id + " 617070" + rest}};
  for (const auto& row : kCases) {
    setenv("TEE_TRACE", row.level, 1);
    testing::internal::CaptureStderr();
    const Slot value = {TEEC_VALUE_INOUT, {}, 0, 1, 2, {}};
    client.Run(kCmdImportKey, In(Wire(key)), In("secret"), Out(9), value);
    Str shown = testing::internal::GetCapturedStderr();
    const size_t time = shown.find(", ", shown.find(") result"));
    if (time != Str::npos) shown.erase(time, shown.find(" us", time) + 3 - time);
    EXPECT_EQ(shown, row.shown);
  }
  // Every way of cutting a list short, or of pointing out of it, is said and not followed.
  setenv("TEE_TRACE", "secrets", 1);
  for (size_t size = 1; size < Wire(key).size(); ++size) {
    testing::internal::CaptureStderr();
    client.Run(kCmdImportKey, In(Wire(key).substr(0, size)));
    const Str shown = testing::internal::GetCapturedStderr();
    EXPECT_NE(shown.find(size < 56 ? "no list" : "outside"), Str::npos) << shown;
  }
  unsetenv("TEE_TRACE");
}

WorkerRequest RequestOf(WorkerRequestKind kind, uint32_t size, uint32_t magic = kWorkerMagic) {
  return {magic, kind, kFill, kFailingApp, TEEC_MEMREF_TEMP_INPUT, {{{nullptr, size}}}};
}

TEST_F(TeeProcess, TheWorkerEndsChannelsThatKeepNoRulesAndServesOn) {
  UseFailingApp();
  const auto kOpen = WorkerRequestKind::kOpen, kInvoke = WorkerRequestKind::kInvoke,
             kClose = WorkerRequestKind::kClose, kUnknown = static_cast<WorkerRequestKind>(4);
  const WorkerRequest open = RequestOf(kOpen, 4096);
  WorkerRequest sparse = open;
  sparse.types = 0x7777;
  struct {
    bool is_opened;  // before, with memory
    WorkerRequest request;
    size_t size, memory;  // of the request and its memory, if it comes with any
    bool is_sealed, is_answered;
  } const kCases[] = {{false, open, sizeof(open), 4096, true, true},
                      {false, open, sizeof(open), 4096, false, false},
                      {false, open, sizeof(open), 4095, true, false},
                      {false, open, sizeof(open), kMaxSharedSize + 1, true, false},
                      {false, open, sizeof(open), 0, true, false},
                      {false, open, sizeof(open) - 1, 4096, true, false},
                      {false, RequestOf(kOpen, 4096, 1), sizeof(open), 4096, true, false},
                      {false, RequestOf(kOpen, UINT32_MAX), sizeof(open), 4096, true, false},
                      {false, sparse, sizeof(open), 4096, true, true},
                      {false, RequestOf(kInvoke, 0), sizeof(open), 0, true, false},
                      {false, RequestOf(kClose, 0), sizeof(open), 0, true, false},
                      {true, open, sizeof(open), 0, true, false},
                      {true, RequestOf(kInvoke, 4096), sizeof(open), 0, true, true},
                      {true, RequestOf(kInvoke, 4097), sizeof(open), 0, true, false},
                      {true, RequestOf(kInvoke, 4097), sizeof(open), 8192, true, true},
                      {true, RequestOf(kInvoke, 4097), sizeof(open), 8192, false, false},
                      {true, RequestOf(kClose, 0), sizeof(open), 0, true, true},
                      {true, RequestOf(kUnknown, 0), sizeof(open), 0, true, false}};
  const auto worker = WorkerProcess::Start();
  for (const auto& row : kCases) {
    SCOPED_TRACE(&row - kCases);
    const auto connection = worker->Connect();
    ASSERT_NE(connection, nullptr);
    const auto is_answered = [&](const WorkerRequest& request, size_t size, size_t memory_size,
                                 bool is_sealed) {
      FileDescriptor memory(memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING)), none;
      EXPECT_EQ(ftruncate(memory.get(), static_cast<off_t>(memory_size)), 0);
      if (is_sealed) fcntl(memory.get(), F_ADD_SEALS, F_SEAL_SHRINK);
      EXPECT_TRUE(connection->channel.Send(&request, size, memory_size ? memory.get() : -1));
      WorkerReply reply = {};
      return connection->channel.Receive(&reply, sizeof(reply), &none, 10000);
    };
    if (row.is_opened) {
      EXPECT_TRUE(is_answered(open, sizeof(open), 4096, true));
    }
    EXPECT_EQ(is_answered(row.request, row.size, row.memory, row.is_sealed), row.is_answered);
  }
  EXPECT_TRUE(worker->IsAlive());
}

// Sends a record with the socket itself twice.
bool SendWithTwo(int socket, const void* record, size_t size) {
  iovec part = {const_cast<void*>(record), size};
  alignas(cmsghdr) char room[CMSG_SPACE(2 * sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = room;
  message.msg_controllen = sizeof(room);
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  *header = {CMSG_LEN(2 * sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
  const int both[] = {socket, socket};
  memcpy(CMSG_DATA(header), both, sizeof(both));
  return sendmsg(socket, &message, 0) > 0;
}

// Plays the worker with a script that gets the channel of the one connection.
class PlayedWorker {
 public:
  explicit PlayedWorker(std::function<void(FileDescriptor)> script) {
    FileDescriptor ours, theirs;
    EXPECT_TRUE(Channel::MakePair(&ours, &theirs));
    // No process: there is nothing to wait for, or to kill.
    process_ = std::make_shared<WorkerProcess>(
        0, FileDescriptor(open("/dev/null", O_RDONLY | O_CLOEXEC)), Channel(std::move(ours)));
    thread_ = std::thread([script, control = Channel(std::move(theirs))] {
      char greeting = 0;
      FileDescriptor socket;
      EXPECT_TRUE(control.Receive(&greeting, 1, &socket, 10000));
      script(std::move(socket));
    });
  }
  ~PlayedWorker() {
    process_ = nullptr;
    thread_.join();
  }
  Session NewSession() { return {std::make_unique<RemoteSession>(process_, kFailingApp), 1}; }

 private:
  std::shared_ptr<WorkerProcess> process_;
  std::thread thread_;
};

uint32_t OpenWith(Session* session, uint32_t type, Str* buffer) {
  TEEC_Operation operation = {1, type, {}, nullptr, 0};
  operation.params[0].tmpref = {buffer->data(), static_cast<uint32_t>(buffer->size())};
  CommandParameters parameters;
  EXPECT_EQ(parameters.Read(&operation), 0u);
  return session->Open(7, &parameters, &operation).result;
}

TEST_F(TeeProcess, TheClientBelievesNoReply) {
  const WorkerReply honest = {kWorkerMagic, 0, 4, {{{nullptr, 3}}}};
  WorkerReply magic = honest, big = honest;
  magic.magic ^= 1;
  big.params[0].tmpref.size = UINT32_MAX;
  struct {
    const WorkerReply& reply;
    size_t size;
    uint32_t result;
    int descriptors;
  } const kCases[] = {{honest, sizeof(honest), 0, 0},
                      {honest, sizeof(honest) - 1, kDead, 0},
                      {magic, sizeof(honest), kDead, 0},
                      {big, sizeof(honest), kShort, 0},
                      {honest, sizeof(honest), kDead, 2}};
  for (const auto& row : kCases) {
    SCOPED_TRACE(&row - kCases);
    PlayedWorker worker([&](FileDescriptor socket) {
      const int fd = socket.get();
      const Channel channel(std::move(socket));
      WorkerRequest request = {};
      FileDescriptor memory;
      EXPECT_TRUE(channel.Receive(&request, sizeof(request), &memory, 10000));
      EXPECT_TRUE(row.descriptors == 0 ? channel.Send(&row.reply, row.size, -1)
                                       : SendWithTwo(fd, &row.reply, row.size));
    });
    Session session = worker.NewSession();
    Str buffer(8, 0);
    EXPECT_EQ(OpenWith(&session, TEEC_MEMREF_TEMP_OUTPUT, &buffer), row.result);
  }
}

// One connection and one memory for all: nothing of a session is in it once that is over.
TEST_F(TeeProcess, ClosedSessionsLeaveTheirConnectionButNoBytes) {
  Str texts[] = {"first", Str(50000, 'x'), "third"};
  std::atomic<const Str*> checked{nullptr};
  PlayedWorker worker([&](FileDescriptor socket) {
    const Channel channel(std::move(socket));
    const WorkerReply reply = {kWorkerMagic, 0, 4, {}};
    WorkerRequest request = {};
    FileDescriptor memory, more;
    EXPECT_TRUE(channel.Receive(&request, sizeof(request), &memory, 10000));
    for (const Str& text : texts) {
      Str bytes(65536, 0);
      EXPECT_EQ(pread(memory.get(), bytes.data(), bytes.size(), 0), 65536);
      EXPECT_EQ(bytes, text + Str(65536 - text.size(), 0));
      EXPECT_TRUE(channel.Send(&reply, sizeof(reply), -1));
      EXPECT_TRUE(channel.Receive(&request, sizeof(request), &more, 10000));
      EXPECT_EQ(request.kind, WorkerRequestKind::kClose);
      EXPECT_EQ(pread(memory.get(), bytes.data(), bytes.size(), 0), 65536);
      EXPECT_EQ(bytes, Str(65536, 0));
      checked = &text;
      EXPECT_TRUE(channel.Send(&reply, sizeof(reply), -1));
      EXPECT_EQ(channel.Receive(&request, sizeof(request), &more, 10000), &text != &texts[2]);
      EXPECT_LT(more.get(), 0);
    }
  });
  for (Str& text : texts) {
    Session session = worker.NewSession();
    EXPECT_EQ(OpenWith(&session, TEEC_MEMREF_TEMP_INPUT, &text), 0u);
    session.Close();
    while (checked != &text) {
      usleep(100);
    }
  }
}

// As when its context is finalised on another thread just before it opens.
TEST_F(TeeProcess, ASessionThatWasClosedDoesNotOpen) {
  UseFailingApp();
  Session session(std::make_unique<RemoteSession>(WorkerProcess::Start(), kFailingApp), 1);
  session.Close();
  Str buffer(8, 0);
  EXPECT_EQ(OpenWith(&session, TEEC_MEMREF_TEMP_INPUT, &buffer), TEEC_ERROR_BAD_STATE);
}

TEST_F(TeeProcess, SessionsAreClosedWithTheirContext) {
  UseFailingApp();
  {
    Client client(kFailingApp);
    EXPECT_EQ(client.Run(kNoteClose), 0u);
    TEEC_CloseSession(&client.session);
  }
  EXPECT_EQ(Entries(getenv("KEYMASTER_TA_STATE")), std::vector<Str>{"closed"});
}

TEST_F(TeeProcess, AForkedChildHasAWorkerOfItsOwn) {
  UseFailingApp();
  Client client(kFailingApp);
  TEEC_Session idle = {}, fresh = {};
  ASSERT_EQ(client.Open(&idle), 0u);
  TEEC_CloseSession(&idle);
  EXPECT_EQ(client.Run(kFill, Out(8)), 0u);
  const pid_t child = fork();
  if (child == 0) {
    const bool is_apart = system("grep -q tee-command /proc/$PPID/maps") != 0 &&
                          client.Run(kEcho, In("x"), Out(8)) == kDead && client.Open(&fresh) == 0 &&
                          client.RunOn(&fresh, kFill, {Out(8)}) == 0 && Children().size() == 1;
    TEEC_FinalizeContext(&client.context);
    _exit(is_apart ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(client.Run(kFill, Out(8)), 0u);
}

TEST_F(TeeProcess, TheWorkerEndsWithAClientThatIsKilled) {
  UseFailingApp();
  const pid_t client = fork();
  if (client == 0) {
    Client(kFailingApp).Run(kHang);
    _exit(1);
  }
  std::vector<pid_t> workers;
  while ((workers = Children(client)).empty()) {
    usleep(1000);
  }
  usleep(50000);
  kill(client, SIGKILL);
  waitpid(client, nullptr, 0);
  // What is left of it may wait for whoever adopted it, but runs no program.
  const Str program = "/proc/" + std::to_string(workers.at(0)) + "/exe";
  for (int wait = 0; wait < 10000 && access(program.c_str(), F_OK) == 0; ++wait) {
    usleep(1000);
  }
  EXPECT_NE(access(program.c_str(), F_OK), 0);
}

TEST_F(TeeProcess, WorkersThatDoNotWorkAreToldApart) {
  for (const char* path : {"/nonexistent", "/bin/true"}) {
    setenv("TEE_WORKER", path, 1);
    const bool exists = access(path, X_OK) == 0;
    const Client client(kFailingApp, exists ? kDead : TEEC_ERROR_COMMUNICATION);
    EXPECT_EQ(client.origin, exists ? TEEC_ORIGIN_TEE : TEEC_ORIGIN_COMMS);
  }
  // Started, and out of reach for want of a descriptor.
  UseFailingApp();
  rlimit files = {};
  getrlimit(RLIMIT_NOFILE, &files);
  const rlimit few = {64, files.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  std::vector<FileDescriptor> all;
  for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
    all.emplace_back(fd);
  }
  all.resize(all.size() - 2);  // for the channel
  EXPECT_EQ(WorkerProcess::Start(), nullptr);
  setrlimit(RLIMIT_NOFILE, &files);
}

}  // namespace

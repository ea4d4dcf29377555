// The TA in a process of its own: what the caller sees when that dies, hangs or lies.
#include "platform/tee_client/worker.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "platform/tee_client/sessions.h"
#include "tests/tee_client/tee_client_test.h"

namespace {

using Worker = TeeClientTest;

TEST_F(Worker, EveryDeathIsTargetDeadUntilTheNextSession) {
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
    Client client;
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

WorkerRequest RequestOf(WorkerRequestKind kind, uint32_t size, uint32_t magic = kWorkerMagic) {
  return {magic, kind, kFill, kTestApp, TEEC_MEMREF_TEMP_INPUT, {{{nullptr, size}}}};
}

TEST_F(Worker, TheWorkerEndsChannelsThatKeepNoRulesAndServesOn) {
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
                      {false, open, sizeof(open) - 1, 4096, true, false},
                      {false, RequestOf(kOpen, 4096, 1), sizeof(open), 4096, true, false},
                      {false, RequestOf(kOpen, UINT32_MAX), sizeof(open), 4096, true, false},
                      {false, sparse, sizeof(open), 4096, true, true},
                      {false, RequestOf(kInvoke, 0), sizeof(open), 0, true, false},
                      {true, RequestOf(kInvoke, 4096), sizeof(open), 0, true, true},
                      {true, RequestOf(kInvoke, 4097), sizeof(open), 0, true, false},
                      {true, RequestOf(kInvoke, 4097), sizeof(open), 8192, true, true},
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

// Plays the worker with a script that gets the channel of the one connection.
class PlayedWorker {
 public:
  explicit PlayedWorker(std::function<void(const Channel&)> script) {
    FileDescriptor ours, theirs;
    EXPECT_TRUE(Channel::MakePair(&ours, &theirs));
    // No process: there is nothing to wait for, or to kill.
    process_ = std::make_shared<WorkerProcess>(
        0, FileDescriptor(open("/dev/null", O_RDONLY | O_CLOEXEC)), Channel(std::move(ours)));
    thread_ = std::thread([script, control = Channel(std::move(theirs))] {
      char greeting = 0;
      FileDescriptor socket;
      EXPECT_TRUE(control.Receive(&greeting, 1, &socket, 10000));
      script(Channel(std::move(socket)));
    });
  }
  ~PlayedWorker() {
    process_ = nullptr;
    thread_.join();
  }
  Session NewSession() { return {std::make_unique<RemoteSession>(process_, kTestApp), 1}; }

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

TEST_F(Worker, TheClientBelievesNoReply) {
  const WorkerReply honest = {kWorkerMagic, 0, 4, {{{nullptr, 3}}}};
  WorkerReply magic = honest, big = honest;
  magic.magic ^= 1;
  big.params[0].tmpref.size = UINT32_MAX;
  struct {
    const WorkerReply& reply;
    size_t size;
    uint32_t result;
  } const kCases[] = {{honest, sizeof(honest), 0},
                      {honest, sizeof(honest) - 1, kDead},
                      {magic, sizeof(honest), kDead},
                      {big, sizeof(honest), kShort}};
  for (const auto& row : kCases) {
    SCOPED_TRACE(&row - kCases);
    PlayedWorker worker([&](const Channel& channel) {
      WorkerRequest request = {};
      FileDescriptor memory;
      EXPECT_TRUE(channel.Receive(&request, sizeof(request), &memory, 10000));
      EXPECT_TRUE(channel.Send(&row.reply, row.size, -1));
    });
    Session session = worker.NewSession();
    Str buffer(8, 0);
    EXPECT_EQ(OpenWith(&session, TEEC_MEMREF_TEMP_OUTPUT, &buffer), row.result);
  }
}

// One connection and one memory for all: nothing of a session is in it once that is over.
TEST_F(Worker, ClosedSessionsLeaveTheirConnectionButNoBytes) {
  Str texts[] = {"first", Str(50000, 'x'), "third"};
  std::atomic<const Str*> checked{nullptr};
  PlayedWorker worker([&](const Channel& channel) {
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
TEST_F(Worker, ASessionThatWasClosedDoesNotOpen) {
  Session session(std::make_unique<RemoteSession>(WorkerProcess::Start(), kTestApp), 1);
  session.Close();
  Str buffer(8, 0);
  EXPECT_EQ(OpenWith(&session, TEEC_MEMREF_TEMP_INPUT, &buffer), TEEC_ERROR_BAD_STATE);
}

TEST_F(Worker, SessionsAreClosedWithTheirContext) {
  {
    Client client;
    EXPECT_EQ(client.Run(kNoteClose), 0u);
    TEEC_CloseSession(&client.session);
  }
  EXPECT_EQ(Entries(getenv("KEYMASTER_TA_STATE")), std::vector<Str>{"closed"});
}

TEST_F(Worker, AForkedChildHasAWorkerOfItsOwn) {
  Client client;
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

TEST_F(Worker, TheWorkerEndsWithAClientThatIsKilled) {
  const pid_t client = fork();
  if (client == 0) {
    Client().Run(kHang);
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

TEST_F(Worker, WorkersThatDoNotWorkAreToldApart) {
  for (const char* path : {"/nonexistent", "/bin/true"}) {
    setenv("TEE_WORKER", path, 1);
    const bool exists = access(path, X_OK) == 0;
    const Client client(kTestApp, exists ? kDead : TEEC_ERROR_COMMUNICATION);
    EXPECT_EQ(client.origin, exists ? TEEC_ORIGIN_TEE : TEEC_ORIGIN_COMMS);
  }
  // Started, and out of reach for want of a descriptor.
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

// The TA in a process of its own: what the caller sees when that dies, hangs or lies.
#include "platform/tee_client/worker.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>

#include "platform/tee_client/sessions.h"
#include "tests/tee_client/tee_client_test.h"

namespace {

using Worker = TeeClientTest;
constexpr int kLimitMs = 10000;

TEST_F(Worker, EveryDeathIsTargetDeadUntilTheNextSession) {
  struct {
    const char* how;
    uint32_t command;
    bool is_killed_before, is_killed_during;
    const char* limit_ms;
  } const kCases[] = {
      {"between calls", kFill, true, false, ""},
      {"under a call", kHang, false, true, ""},
      {"too slow", kHang, false, false, "200"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.how);
    Client client;
    TEEC_Session other = {}, fresh = {};
    ASSERT_EQ(client.Open(&other), 0u);
    const pid_t worker = Children().at(0);
    if (row.is_killed_before) kill(worker, SIGKILL);
    setenv("TEE_TIMEOUT_MS", row.limit_ms, 1);
    auto call = std::async(std::launch::async, [&] { return client.Run(row.command); });
    if (row.is_killed_during) {
      usleep(50000);
      EXPECT_EQ(Client().Run(kFill), 0u) << "a call that hangs must not hold up others";
      kill(worker, SIGKILL);
    }
    EXPECT_EQ(call.get(), kDead);
    unsetenv("TEE_TIMEOUT_MS");
    EXPECT_EQ(client.Run(kFill, {}, &other), kDead);
    ASSERT_EQ(client.Open(&fresh), 0u);
    EXPECT_EQ(client.Run(kFill, {}, &fresh), 0u);
    EXPECT_EQ(client.Run(kFill), kDead);
    // Idle connections die with their worker.
    TEEC_CloseSession(&fresh);
    kill(Children().at(0), SIGKILL);
    siginfo_t status = {};
    ASSERT_EQ(waitid(P_ALL, 0, &status, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(client.Open(&fresh), 0u);
  }
  setenv("TEE_WORKER", "/bin/true", 1);
  EXPECT_EQ(Client(kDead).origin, TEEC_ORIGIN_TEE);
}

TEST_F(Worker, TheWorkerEndsChannelsThatKeepNoRulesAndServesOn) {
  const auto request = [](WorkerRequestKind kind, uint32_t size) {
    return WorkerRequest{kWorkerMagic,       kind, kFill, kTestApp, TEEC_MEMREF_TEMP_INPUT,
                         {{{nullptr, size}}}};
  };
  constexpr auto kOpen = WorkerRequestKind::kOpen, kInvoke = WorkerRequestKind::kInvoke;
  constexpr int kSealed = F_SEAL_SHRINK, kUnsealed = 0;
  struct {
    bool is_opened;  // before, with 4096 bytes of memory
    WorkerRequest request;
    off_t memory;  // that comes with the request; 0 for none
    int seals;
    bool is_answered;
  } const kCases[] = {{false, request(kOpen, 4096), 4096, kSealed, true},
                      {false, request(kOpen, 4096), 4096, kUnsealed, false},
                      {false, request(kOpen, 4096), 4095, kSealed, false},
                      {false, request(kOpen, UINT32_MAX), 4096, kSealed, false},
                      {false, request(kInvoke, 0), 0, kSealed, false},
                      {true, request(kInvoke, 4096), 0, kSealed, true},
                      {true, request(kInvoke, 4097), 0, kSealed, false}};
  const auto worker = WorkerProcess::Start();
  for (const auto& row : kCases) {
    SCOPED_TRACE(&row - kCases);
    const auto connection = worker->Connect();
    const auto is_answered = [&](const WorkerRequest& sent, off_t size, int seals) {
      const FileDescriptor memory(memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
      EXPECT_EQ(ftruncate(memory.get(), size) + fcntl(memory.get(), F_ADD_SEALS, seals), 0);
      EXPECT_TRUE(connection->channel.Send(&sent, sizeof(sent), size == 0 ? -1 : memory.get()));
      WorkerReply reply = {};
      return connection->Receive(&reply, kLimitMs);
    };
    EXPECT_TRUE(!row.is_opened || is_answered(request(kOpen, 4096), 4096, kSealed));
    EXPECT_EQ(is_answered(row.request, row.memory, row.seals), row.is_answered);
  }
  EXPECT_TRUE(worker->IsAlive());
}

// A worker that the test plays, on the one connection that there is and with answers sent ahead.
struct PlayedWorker {
  std::shared_ptr<WorkerProcess> process;
  Channel channel;
  PlayedWorker() {
    FileDescriptor ours, theirs, socket;
    EXPECT_TRUE(Channel::MakePair(&ours, &theirs));
    // No process: there is nothing to wait for, or to kill.
    process = std::make_shared<WorkerProcess>(
        0, FileDescriptor(open("/dev/null", O_RDONLY | O_CLOEXEC)), Channel(std::move(ours)));
    auto connection = process->Connect();
    char greeting = 0;
    EXPECT_TRUE(Channel(std::move(theirs)).Receive(&greeting, 1, &socket, kLimitMs));
    channel = Channel(std::move(socket));
    process->Release(std::move(connection));
  }
  // Open opens a session with one parameter.
  uint32_t Open(uint32_t type, Str buffer, Session* session) const {
    TEEC_Operation operation = {1, type, {}, nullptr, 0};
    operation.params[0].tmpref = {buffer.data(), static_cast<uint32_t>(buffer.size())};
    CommandParameters parameters;
    EXPECT_EQ(parameters.Read(&operation), 0u);
    return session->Open(7, &parameters, &operation).result;
  }
  Session NewSession() const { return {std::make_unique<RemoteSession>(process, kTestApp), 1}; }
};

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
    const PlayedWorker worker;
    EXPECT_TRUE(worker.channel.Send(&row.reply, row.size, -1));
    Session session = worker.NewSession();
    EXPECT_EQ(worker.Open(TEEC_MEMREF_TEMP_OUTPUT, Str(8, 0), &session), row.result);
  }
}

// One connection and one memory for all: nothing of a command is in it once that is over.
TEST_F(Worker, ClosedSessionsLeaveTheirConnectionButNoBytes) {
  const PlayedWorker worker;
  const WorkerReply reply = {kWorkerMagic, 0, 4, {}};
  WorkerRequest request = {};
  FileDescriptor memory, none;
  for (const Str& text : {Str("first"), Str(50000, 'x'), Str("third")}) {
    Session session = worker.NewSession();
    EXPECT_TRUE(worker.channel.Send(&reply, sizeof(reply), -1));
    EXPECT_EQ(worker.Open(TEEC_MEMREF_TEMP_INPUT, text, &session), 0u);
    FileDescriptor* const file = memory.get() < 0 ? &memory : &none;
    EXPECT_TRUE(worker.channel.Receive(&request, sizeof(request), file, kLimitMs));
    Str bytes(65536, 'x');
    EXPECT_EQ(pread(memory.get(), bytes.data(), bytes.size(), 0), 65536);
    EXPECT_EQ(bytes, Str(65536, 0));
    session.Close();
    EXPECT_TRUE(worker.channel.Receive(&request, sizeof(request), &none, kLimitMs));
    EXPECT_EQ(request.kind, WorkerRequestKind::kClose);
    EXPECT_LT(none.get(), 0) << "the memory comes once";
    EXPECT_TRUE(worker.channel.Send(&reply, sizeof(reply), -1));
    // As when its context is finalised on another thread just before it opens.
    EXPECT_EQ(worker.Open(TEEC_MEMREF_TEMP_INPUT, text, &session), TEEC_ERROR_BAD_STATE);
  }
}

TEST_F(Worker, AForkedChildHasAWorkerOfItsOwn) {
  Client client;
  TEEC_Session fresh = {};
  EXPECT_EQ(client.Run(kFill, {Out(8)}), 0u);
  const pid_t child = fork();
  if (child == 0) {
    const bool is_apart = system("grep -q tee-command /proc/$PPID/maps") != 0 &&
                          client.Run(kFill) == kDead && client.Open(&fresh) == 0 &&
                          client.Run(kFill, {}, &fresh) == 0 && Children().size() == 1;
    TEEC_FinalizeContext(&client.context);
    _exit(is_apart ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(client.Run(kFill, {Out(8)}), 0u);
}

TEST_F(Worker, TheWorkerEndsWithAClientThatIsKilled) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t client = fork();
  if (client == 0) {
    dup2(ends[1], STDERR_FILENO);
    Client().Run(kHang);
    _exit(1);
  }
  close(ends[1]);
  while (Children(client).empty()) {
    usleep(1000);
  }
  usleep(50000);
  kill(client, SIGKILL);
  waitpid(client, nullptr, 0);
  EXPECT_TRUE(WaitReadable(ends[0], kLimitMs)) << "the worker still has its standard error";
  close(ends[0]);
}

}  // namespace

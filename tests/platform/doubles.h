// Doubles of the platform's functions: what they are told to answer and what they saw. Each
// executable that links them uses them in place of the stand-ins. Script and records belong to
// the test's thread while no request runs; the doubles themselves may be called on any thread.
#ifndef TESTS_PLATFORM_DOUBLES_H
#define TESTS_PLATFORM_DOUBLES_H

#include <tee_client_api.h>

#include <deque>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/bytes.h"

namespace test {

// Reply is the TA's answer to one command. Output references that it does not name come back with
// size 0, values unchanged. It is applied whatever the result, as a real TEE may.
struct Reply {
  static Reply Ok() { return {}; }
  static Reply Fail(TEEC_Result result, uint32_t origin = TEEC_ORIGIN_TRUSTED_APP) {
    return {result, origin, {}, {}, {}};
  }
  // Writes bytes (as far as they fit) into an output reference and reports their number.
  Reply& Out(unsigned index, Bytes bytes) { return Set(&outputs[index], std::move(bytes)); }
  // Reports a size whatever was written: it may lie. Only outputs take a size or value.
  Reply& Size(unsigned index, uint32_t size) { return Set(&sizes[index], size); }
  Reply& Value(unsigned index, uint32_t a, uint32_t b) { return Set(&values[index], {a, b}); }
  template <typename T>
  Reply& Set(T* field, T value) {
    *field = std::move(value);
    return *this;
  }

  TEEC_Result result = TEEC_SUCCESS;
  uint32_t origin = TEEC_ORIGIN_TRUSTED_APP;
  // By parameter.
  std::map<unsigned, Bytes> outputs;
  std::map<unsigned, uint32_t> sizes;
  std::map<unsigned, TEEC_Value> values;
};
void Apply(const Reply& reply, TEEC_Operation* operation);

// One parameter of an operation as the library filled it.
struct SeenParam {
  Bytes in;                // the content of an input or in/out reference
  void* buffer = nullptr;  // of any reference
  uint32_t size = 0;       // capacity or length
  TEEC_Value value{};      // of a value
};

struct Invocation {
  uint32_t command = 0, param_types = 0;
  SeenParam params[4];
  size_t session = 0;                         // which open it ran on, from 0
  const TEEC_Operation* operation = nullptr;  // itself, only while a handler runs
};

struct Opened {
  TEEC_Session* block = nullptr;     // the library's
  bool open = false, first = false;  // a first one is never closed or freed by the library
  std::thread::id thread = std::this_thread::get_id();
};

struct LogLine {
  int level = 0;
  std::optional<std::string> tag;
  std::string format, text;
};

struct Event {
  unsigned id = 0;
  std::string params;  // in the order set: "RET=7 CMD_ID=4 "; a parameter by number is "#0="
  bool sent = false, destroyed = false;
  // What texts were set, and where they stood: an event library need not copy them before it sends.
  std::vector<std::pair<const char*, std::string>> texts;
};

using Handler = std::function<Reply(const Invocation&)>;

// What to answer.
struct Script {
  std::map<uint32_t, std::deque<Reply>> queued;  // by command; before the handler
  std::map<uint32_t, Handler> handlers;          // by command
  Handler any;                                   // for the others; default: Reply::Ok()
  std::function<Reply()> init, open;             // the result, and params[0] of an open
  uint32_t os_version = 120000, os_patchlevel = 202211;
};

// What was seen.
struct Records {
  std::vector<std::pair<uint32_t, TEEC_Result>> answers;  // by command; of init and open 0
  std::vector<Opened> opens;
  std::vector<Invocation> invocations;  // that were answered
  std::map<int, std::string> brackets;  // the labels of those that did not end, by id
  int next_bracket = 40;
  std::vector<LogLine> log;
  std::list<Event> events;
  std::vector<std::string> journal;   // all TEE and watchdog calls in order
  std::vector<std::string> problems;  // misuse, such as a session closed twice
};

struct Platform : Script, Records {
  void Queue(uint32_t command, Reply reply) { queued[command].push_back(std::move(reply)); }
  void On(uint32_t command, Handler handler) { handlers[command] = std::move(handler); }
  void ClearRecords() { static_cast<Records&>(*this) = Records(); }
  // Reset forgets script, records and faults.
  void Reset();

  // Tells whether a bound lies within the memory that it is given for. Null judges nothing.
  bool (*judge_bound)(const void* memory, size_t bound) = nullptr;
  void CheckBound(const void* memory, size_t bound) {
    if (judge_bound != nullptr && !judge_bound(memory, bound)) {
      const std::lock_guard<std::mutex> lock(mutex);
      problems.push_back("a bound of " + std::to_string(bound) + " bytes beyond its block");
    }
  }

  size_t live_contexts = 0;
  std::mutex mutex;  // for the doubles
};

// ---- Faults: the n-th call of a platform function, or from the library, fails.

// kCrypto is all calls into libcrypto that can fail, as they come; a failing TEEC call
// (kInitContext, kOpenSession, kInvoke) returns kInjectedTeeError.
enum class Call {
  kCrypto,
  kMalloc,
  kMemcpyS,
  kMemsetS,
  kInitContext,
  kOpenSession,
  kInvoke,
  kCreateEvent,
  kSetInteger,
  kSetString,
  kSetParam,
  kSendEvent,
  kEnd
};
constexpr uint32_t kInjectedTeeError = 0xFFFF000Eu;

// FailCall restarts the count of a call and makes its nth (from 1) fail, and, if asked, all later
// ones. 0 fails none.
void FailCall(Call call, int nth, bool and_later = false);
// CallCount tells how often a call was made since ClearFaults or its last FailCall.
int CallCount(Call call);
// ClearFaults lets all calls succeed and restarts all counts.
void ClearFaults();
// TakeFault counts a call and tells whether it is to fail. For the doubles and hooks.
bool TakeFault(Call call);

// ---- The one platform of the process.

Platform& platform();
// Note is how a double begins: it locks the platform, for as long as the result lives, and puts
// entry, if there is one, in the journal.
std::unique_lock<std::mutex> Note(const std::string& entry = "");

}  // namespace test

#endif  // TESTS_PLATFORM_DOUBLES_H

// The frame that every TA command runs in: open, clear, fill, invoke, close.
#ifndef TEE_COMMAND_FRAME_H
#define TEE_COMMAND_FRAME_H

#include <stdint.h>

#include "tee/session.h"
#include "wire/ta_protocol.h"

namespace km41 {

// RefuseArguments logs that a required argument, or the TEE context, is missing.
uint32_t RefuseArguments();

// The same under the wording of the commands that carry operation data.
uint32_t RefuseParams();

// CommandFrame is one command on a session of its own. The session is closed when the frame ends,
// whatever happened. A parameter that is not filled is declared NONE.
class CommandFrame {
 public:
  // After a failed invocation the commands with kFetchErrorRecord ask the TA for its record.
  enum class AfterFailure { kNothing, kFetchErrorRecord };

  // label names the watchdog's bracket, and outlives the frame.
  CommandFrame(TaCommandId id, const char* label, AfterFailure after_failure)
      : id_(id), label_(label), after_failure_(after_failure) {}

  // Start opens the session and clears the operation.
  uint32_t Start();
  // Its two steps, for the commands that log between them.
  uint32_t OpenSession() { return session_.Open(); }
  uint32_t ClearRecord();

  // Each fills one parameter and declares its type. A buffer stays the caller's; sizes in bytes.
  void Value(uint32_t index, uint32_t type, uint32_t a, uint32_t b);
  void Input(uint32_t index, const uint8_t* buffer, uint32_t size);
  void Output(uint32_t index, uint8_t* buffer, uint32_t size);
  void InOut(uint32_t index, uint8_t* buffer, uint32_t size);
  // As Input, for an optional buffer: a null one leaves the parameter NONE.
  void OptionalInput(uint32_t index, const uint8_t* buffer, uint32_t size);
  // The same whose length may be missing: the parameter is then declared, but empty.
  void OptionalInput(uint32_t index, const uint8_t* buffer, const uint32_t* size);

  // Invoke sends the command under the watchdog. A failure is logged, its error record fetched
  // where the command has one, and the session closed.
  uint32_t Invoke();
  // InvokeUnguarded is Invoke without the watchdog.
  uint32_t InvokeUnguarded();

  // What the TEE reports back after a successful invocation. A reported size may exceed the
  // buffer's capacity: whoever reads the buffer checks.
  uint32_t ReportedSize(uint32_t index) const { return operation_.params[index].tmpref.size; }
  // The same, at most 4096.
  uint32_t CappedSize(uint32_t index) const;
  const TEEC_Value& ReportedValue(uint32_t index) const { return operation_.params[index].value; }

  void Close() { session_.Close(); }

 private:
  void Declare(uint32_t index, uint32_t type) { operation_.paramTypes |= type << (4 * index); }
  void Reference(uint32_t index, uint32_t type, const uint8_t* buffer, uint32_t size);
  uint32_t Send();
  uint32_t Conclude(uint32_t result);

  const TaCommandId id_;
  const char* const label_;
  const AfterFailure after_failure_;
  KmSession session_;
  TEEC_Operation operation_ = {};
  uint32_t return_origin_ = 0;
};

}  // namespace km41

#endif  // TEE_COMMAND_FRAME_H

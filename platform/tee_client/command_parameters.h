// The parameters of one command, on both sides of the border: the caller's operation, and the
// copies of it that the TA works on.
#ifndef PLATFORM_TEE_CLIENT_COMMAND_PARAMETERS_H
#define PLATFORM_TEE_CLIENT_COMMAND_PARAMETERS_H

#include <trusted_app.h>

// A result and who made it, one of TEEC_ORIGIN_*.
struct Reply {
  TEEC_Result result;
  uint32_t origin;
};

bool IsMemoryReference(uint32_t type);
bool IsInput(uint32_t type);
bool IsOutput(uint32_t type);

class CommandParameters {
 public:
  static constexpr uint32_t kCount = 4;

  // Read checks an operation (null: no parameters) and remembers what it says.
  TEEC_Result Read(const TEEC_Operation* operation);
  // CopyIn copies what travels into the TA. memory has as many bytes as the copies take, all zero;
  // it is lent until the parameters are used no more.
  void CopyIn(uint8_t* memory);
  // CopyOut takes what the TA answered and hands back what travels out of it: sizes with success
  // and with TEEC_ERROR_SHORT_BUFFER, contents with success only. A TA that claims to have
  // produced more than fits is answered for with TEEC_ERROR_SHORT_BUFFER.
  Reply CopyOut(Reply ta, TEEC_Operation* operation) const;
  // BelieveSizes has CopyOut hand on sizes beyond the capacity as they are, with a success too.
  void BelieveSizes() { believes_sizes_ = true; }

  uint32_t types() const { return types_; }
  uint32_t TypeOf(uint32_t index) const { return TEEC_PARAM_TYPE_GET(types_, index); }
  // What the caller gave, and of that the size of a memory reference.
  const TEEC_Parameter& Given(uint32_t index) const { return caller_[index]; }
  uint32_t CapacityOf(uint32_t index) const { return caller_[index].tmpref.size; }
  TaParam* ta_params() { return ta_; }
  const TaParam* ta_params() const { return ta_; }

 private:
  uint32_t types_ = 0;
  bool believes_sizes_ = false;
  // As the operation stood at the start: the caller's own record may change under the command.
  TEEC_Parameter caller_[kCount] = {};
  uint8_t* memory_ = nullptr;
  TaParam ta_[kCount];
};

// Where the copies of a command's memory references lie in its memory.
struct ReferenceLayout {
  uint64_t offset[CommandParameters::kCount] = {};
  uint64_t total = 0;

  ReferenceLayout(uint32_t types, const TEEC_Parameter params[CommandParameters::kCount]);
  explicit ReferenceLayout(const CommandParameters& parameters)
      : ReferenceLayout(parameters.types(), &parameters.Given(0)) {}
};

// PointReferences points memory references at their copies in memory; with null, nowhere.
void PointReferences(uint32_t types, uint8_t* memory, TEEC_Parameter params[]);

#endif  // PLATFORM_TEE_CLIENT_COMMAND_PARAMETERS_H

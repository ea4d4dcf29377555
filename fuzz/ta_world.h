// The software TA as its fuzz target finds it: in a state folder of its own, configured, with a
// pool of keys, and with what the TA takes from its system the same in each run.
#ifndef FUZZ_TA_WORLD_H
#define FUZZ_TA_WORLD_H

#include <trusted_app.h>

#include <vector>

#include "fuzz/input.h"

namespace fuzz {

// Slot is one parameter of a command, with memory of exactly its size.
struct Slot {
  Bytes bytes;
  uint32_t a = 0, b = 0;
};

// World is what an input works with: the pool of keys, and what its commands left.
struct World {
  std::vector<Bytes> pool;
  std::vector<Bytes> replies;
  std::vector<uint64_t> handles;
  void* session = nullptr;
  bool changed_device = false;
};

// MakeWorld begins everything, once.
World MakeWorld();
// Restore ends the operations that run and takes back what was stored.
void Restore(World* world);

// UsualTypes returns the parameter types that the library gives a command; 0 for no command's
// number.
uint32_t UsualTypes(uint32_t command);
// Invoke sends a command, and keeps its replies and its handle.
TEEC_Result Invoke(World* world, uint32_t command, uint32_t types, Slot (&slots)[4]);
// HandleBytes returns the handle of an operation of this input; zeros before there is any.
Bytes HandleBytes(const World& world, size_t index);

}  // namespace fuzz

#endif  // FUZZ_TA_WORLD_H

// The software TA as its fuzz target finds it: in a state folder of its own, configured, with a
// pool of keys, and with what the TA takes from its system the same in each run.
#ifndef FUZZ_TA_WORLD_H
#define FUZZ_TA_WORLD_H

#include <trusted_app.h>

#include <string>
#include <vector>

#include "fuzz/input.h"

namespace fuzz {

// What the clock shows.
constexpr long kSecondsSinceBoot = 1000;

// One parameter, with memory of exactly its size.
struct Param {
  Bytes bytes;
  TaParam ta;

  // Points ta to the bytes.
  void Bind() {
    bytes.shrink_to_fit();
    ta.buffer = bytes.empty() ? nullptr : bytes.data();
    ta.size = static_cast<uint32_t>(bytes.size());
  }
};

// One parameter on the wire: a number, or bytes.
struct WireParam {
  keymaster_tag_t tag;
  uint64_t number;
  Bytes bytes;
};
// Serialize returns parameters as the TA takes them, all in the second list.
Bytes Serialize(const std::vector<WireParam>& params);

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

// TypesOf returns the usual parameter types of a command; 0 for a number that is none.
uint32_t TypesOf(uint32_t command);
// Invoke sends a command, and keeps its replies and its handle.
TEEC_Result Invoke(World* world, uint32_t command, uint32_t types, Param (&params)[4]);
// HandleBytes returns the handle of an operation of this input; zeros before there is any.
Bytes HandleBytes(const World& world, uint8_t index);

}  // namespace fuzz

#endif  // FUZZ_TA_WORLD_H

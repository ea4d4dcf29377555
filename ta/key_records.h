// What the TA remembers about single keys: that they were deleted, and how they were used.
#ifndef TA_KEY_RECORDS_H
#define TA_KEY_RECORDS_H

#include "ta/key.h"

namespace ta {

constexpr size_t kKeyIdSize = 16;

// RecordDeletion makes every blob of a key worthless, for good.
void RecordDeletion(const Bytes& key_id);
bool IsKeyDeleted(const Bytes& key_id);

// CountUse counts one use of a key that limits its uses, and refuses the use beyond
// KM_TAG_MAX_USES_PER_BOOT or within KM_TAG_MIN_SECONDS_BETWEEN_OPS of the last one. The counts
// hold until the device boots.
void CountUse(const Key& key);

}  // namespace ta

#endif  // TA_KEY_RECORDS_H

// The 16-byte wire form of one key parameter, in both directions.
#ifndef MARSHAL_PARAM_ENTRY_H
#define MARSHAL_PARAM_ENTRY_H

#include <stdint.h>

#include "keymaster_ts.h"

constexpr uint32_t kParamEntrySize = sizeof(KmParamEntry);

// IsByteValued tells whether the tag's value is bytes, which stand in the blob area.
bool IsByteValued(keymaster_tag_t tag);

// EncodeEntry writes a parameter's entry. A byte value gets offset 0 and the low 32 bits of its
// length.
void EncodeEntry(const keymaster_key_param_t& param, KmParamEntry* entry);

// DecodeEntry reads the 16 bytes at entry. A byte value is left null with length 0: its range is
// EntryOffset and EntryLength.
keymaster_key_param_t DecodeEntry(const uint8_t* entry);

// The tag of an entry, and for a byte value its range in the blob area.
keymaster_tag_t EntryTag(const uint8_t* entry);
uint32_t EntryOffset(const uint8_t* entry);
uint32_t EntryLength(const uint8_t* entry);
void SetEntryOffset(KmParamEntry* entry, uint32_t offset);

#endif  // MARSHAL_PARAM_ENTRY_H

// What requests hand out to their callers: copies of TA replies, in malloc buffers.
#ifndef CONTEXT_CALLER_BLOB_H
#define CONTEXT_CALLER_BLOB_H

#include <stdint.h>

#include "context/owned_buffer.h"

namespace km41 {

enum class CopyResult { kCopied, kNoMemory, kCopyFailed };

// CopyBytes copies length bytes into a new buffer of exactly that size.
CopyResult CopyBytes(const uint8_t* from, uint32_t length, MallocBuffer* copy);

// GiveKeyBlob hands a buffer of that length to the caller's key blob.
void GiveKeyBlob(MallocBuffer bytes, uint32_t length, keymaster_key_blob_t* key_blob);

// DropKeyBlob frees a handed-out key blob and leaves it null with length 0.
void DropKeyBlob(keymaster_key_blob_t* key_blob);

// ReplyFitsKeyBlob tells whether the reported length can be read, and logs one that cannot.
bool ReplyFitsKeyBlob(const ReplyBuffer& reply);

// CopyReply copies a key blob reply into key_blob. 0, or -41 or -1000 after its message, with
// key_blob untouched.
int32_t CopyReply(keymaster_key_blob_t* key_blob, uint32_t length, const uint8_t* reply);

// CopyKeyBlob is CopyReply for a reply that must hold 1 to 4096 bytes; -32 for a null pointer.
int32_t CopyKeyBlob(keymaster_key_blob_t* key_blob, uint32_t length, const uint8_t* reply);

// DecodeCharacteristics decodes a reply into characteristics. False for one that does not decode
// or whose reported length is beyond its buffer; characteristics is then empty, but for a reply of
// 3 bytes or fewer, which leaves it untouched.
bool DecodeCharacteristics(ReplyBuffer* reply, keymaster_key_characteristics_t* characteristics);

// FillKeyCharacteristics decodes a reply into characteristics (may be null: then nothing is done)
// after key_blob was handed out. 0; -32 for a null key_blob; -41, with key_blob emptied, when the
// reply does not decode.
int32_t FillKeyCharacteristics(keymaster_key_blob_t* key_blob,
                               keymaster_key_characteristics_t* characteristics,
                               ReplyBuffer* reply);

// CopyOutputData copies a reply of up to 4096 bytes into output (may be null). 0, -32, -41 or
// -1000; output is null with length 0 for an empty reply and after a failed allocation or copy.
int32_t CopyOutputData(keymaster_blob_t* output, uint32_t length, const uint8_t* data);

}  // namespace km41

#endif  // CONTEXT_CALLER_BLOB_H

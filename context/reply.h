// The replies of the TA, and what of them is handed out to callers, in malloc buffers.
#ifndef CONTEXT_REPLY_H
#define CONTEXT_REPLY_H

#include <openssl/crypto.h>
#include <stdint.h>
#include <string.h>

#include "keymaster_ts.h"
#include "marshal/reply_reader.h"
#include "wire/malloc_buffer.h"
#include "wire/ta_protocol.h"

namespace km41 {

// Reply is where one reply of the TA lands, and the only way to its bytes: Read hands out no more
// than the buffer holds, whatever length was reported. It is zeroed when made, since some commands
// send it along.
class Reply {
 public:
  // A secret reply is wiped before it is freed.
  enum class Content { kPublic, kSecret };

  explicit Reply(uint32_t capacity, Content content = Content::kPublic)
      : bytes_(AllocateBytes(capacity)), capacity_(capacity), content_(content), length_(capacity) {
    if (bytes_ != nullptr) memset(bytes_.get(), 0, capacity);
  }
  ~Reply() {
    if (content_ == Content::kSecret && bytes_ != nullptr) OPENSSL_cleanse(bytes_.get(), capacity_);
  }
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;

  bool allocated() const { return bytes_ != nullptr; }
  // For the command: the buffer, and its capacity, which the reported length replaces.
  uint8_t* buffer() { return bytes_.get(); }
  uint32_t* length_in_out() { return &length_; }
  // For the next command into the same buffer.
  void Restart() { length_ = capacity_; }

  uint32_t capacity() const { return capacity_; }
  uint32_t reported_length() const { return length_; }
  // Read makes *reader walk what was reported. False when that is more than the buffer holds.
  [[nodiscard]] bool Read(ReplyReader* reader) const;

 private:
  const MallocBuffer bytes_;
  const uint32_t capacity_;
  const Content content_;
  uint32_t length_;
};

// ReportFailure logs a failure, for which format takes kLogFailure and the result, and returns it.
[[nodiscard, gnu::format(printf, 1, 0)]] int32_t ReportFailure(const char* format, uint32_t result);

// ---- Copies of bytes

// CopyRest copies what a reader has left into a new buffer of exactly that size. 0; -41 when memory
// runs out, -1000 when the copy fails.
[[nodiscard]] int32_t CopyRest(const ReplyReader& reader, MallocBuffer* copy);

// CopyOutputData copies a reply of up to 4096 bytes into output (may be null). 0, -41 or -1000;
// output is untouched by a longer reply, else null with length 0 for an empty reply and after a
// failed allocation or copy.
[[nodiscard]] int32_t CopyOutputData(const Reply& reply, keymaster_blob_t* output);

// ---- Key blobs

// ReadKeyBlob is Reply::Read for a key blob, and logs a length that cannot be read or is below
// min_length.
[[nodiscard]] bool ReadKeyBlob(const Reply& reply, uint32_t min_length, ReplyReader* reader);

// CopyKeyBlob hands out a copy of a key blob. Results as of CopyRest, with key_blob untouched; the
// messages are the request's.
[[nodiscard]] int32_t CopyKeyBlob(const ReplyReader& reader, keymaster_key_blob_t* key_blob);

// CopyImportedKeyBlob is CopyKeyBlob with the messages of an import.
[[nodiscard]] int32_t CopyImportedKeyBlob(const ReplyReader& reader,
                                          keymaster_key_blob_t* key_blob);

// WithdrawKeyBlob frees a key blob that was handed over, and leaves it null with length 0.
void WithdrawKeyBlob(keymaster_key_blob_t* key_blob);

// ---- Characteristics and output parameters

// DecodeCharacteristics decodes a reply into the caller's lists. False for one that does not
// decode, or whose reported length is beyond its buffer: it empties them, or, when too short for a
// count, leaves them untouched.
[[nodiscard]] bool DecodeCharacteristics(const Reply& reply,
                                         keymaster_key_characteristics_t* characteristics);

// FillKeyCharacteristics does so (but for null characteristics) after key_blob was handed over. 0,
// or -41 with key_blob withdrawn.
[[nodiscard]] int32_t FillKeyCharacteristics(const Reply& reply, keymaster_key_blob_t* key_blob,
                                             keymaster_key_characteristics_t* characteristics);

// ClearOutputs leaves both outputs null with length 0; each may be null.
void ClearOutputs(keymaster_key_param_set_t* out_params, keymaster_blob_t* output);

// DecodeOutParams decodes a reply into the caller's cleared set. An empty reply, or no set, is
// nothing to decode. False leaves the set as it was cleared.
[[nodiscard]] bool DecodeOutParams(const Reply& reply, keymaster_key_param_set_t* out_params);

}  // namespace km41

#endif  // CONTEXT_REPLY_H

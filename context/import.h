// The import command, which generation in software ends in too, and the mark of a wrapped import.
#ifndef CONTEXT_IMPORT_H
#define CONTEXT_IMPORT_H

#include "context/reply.h"
#include "context/serialized_params.h"

namespace km41 {

// Where a key comes from, as every import says to the TA.
enum class ImportSource : uint8_t { kGenerated = 0, kCaller = 1, kUnwrapped = 2 };

// The two replies of the import command.
struct ImportReplies {
  Reply key_blob{kReplyCapacity};
  Reply characteristics{kReplyCapacity};
};

// SendImport sends length bytes of key material with its description to the TA. 0; -41, or the
// TEE result, after a message.
[[nodiscard]] int32_t SendImport(const SerializedParams& params, const uint8_t* key_material,
                                 uint32_t length, ImportSource source, ImportReplies* replies);

// WrappedImportScope marks the imports made on this thread while it lives as the final step of a
// wrapped import. Per thread, so that a plain import on another thread is never taken for one.
class WrappedImportScope {
 public:
  WrappedImportScope();
  ~WrappedImportScope();
  WrappedImportScope(const WrappedImportScope&) = delete;
  WrappedImportScope& operator=(const WrappedImportScope&) = delete;
};

}  // namespace km41

#endif  // CONTEXT_IMPORT_H

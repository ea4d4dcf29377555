// The one place where data goes through a libcrypto cipher.
#ifndef TA_CIPHER_FEED_H
#define TA_CIPHER_FEED_H

#include "evp.h"
#include "key_material.h"

namespace ta {

// FeedCipher runs input of any size through ctx and appends what comes out to output.
inline void FeedCipher(EVP_CIPHER_CTX* ctx, ByteView input, SecureBytes* output) {
  constexpr size_t kPiece = size_t{1} << 20;  // libcrypto counts in int
  while (input.size != 0) {
    const size_t piece = input.size < kPiece ? input.size : kPiece;
    const size_t before = output->size();
    int produced = 0;
    output->resize(before + piece + EVP_MAX_BLOCK_LENGTH);
    RequireCrypto(EVP_CipherUpdate(ctx, output->data() + before, &produced, input.data,
                                   static_cast<int>(piece)) == 1);
    output->resize(before + static_cast<size_t>(produced));
    input = ByteView(input.data + piece, input.size - piece);
  }
}

}  // namespace ta

#endif  // TA_CIPHER_FEED_H

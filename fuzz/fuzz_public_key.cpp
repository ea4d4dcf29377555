// The raw public key that a TA answers an export with. What is exported must be an encoding that
// libcrypto reads back to the same bytes, of the TA's numbers.
#include "fuzz/serve.h"
#include "tests/platform/keys.h"
#include "wire/little_endian.h"

namespace {

using fuzz::Bytes;
using fuzz::Check;

Bytes WithoutLeadingZeros(const Bytes& number) {
  return Bytes(std::find_if(number.begin(), number.end(), [](uint8_t b) { return b != 0; }),
               number.end());
}

void CheckEncoding(const Bytes& spki, const Bytes& reply) {
  const unsigned char* at = spki.data();
  const test::Pkey key(d2i_PUBKEY(nullptr, &at, static_cast<long>(spki.size())));
  Check(key != nullptr, "an exported key can be read");
  Check(at == spki.data() + spki.size(), "nothing stands behind the key");
  Check(test::Spki(key.get()) == spki, "the encoding is the one there is");
  const auto numbers = test::NumbersOf(key.get());
  const bool rsa = numbers.count("n") != 0;
  // Behind a header of four words, the third of which is the length of the first.
  const auto first = reply.begin() + 16, second = first + km41::GetU32(&reply[8]);
  Check(WithoutLeadingZeros({first, second}) == numbers.at(rsa ? "n" : "x") &&
            WithoutLeadingZeros({second, reply.end()}) == numbers.at(rsa ? "e" : "y"),
        "the exported numbers are the TA's");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Bytes reply(data, data + size);
  fuzz::ServeReply("ExportRsa", 2, reply, [&](int32_t result, const test::Args& args) {
    if (result == 0) CheckEncoding(test::BlobBytes(*args.data), reply);
  });
  return 0;
}

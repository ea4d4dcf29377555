#include "ta/key.h"

namespace ta {
namespace {

enum RsaForm : uint32_t { kPrivateExponentForm = 1, kCrtForm = 2 };

// A number of libcrypto's, which may be part of a private key.
struct Number : BnPtr {
  Number() : BnPtr(BN_new()) {
    RequireCrypto(get() != nullptr);
#ifdef BN_FLG_CONSTTIME  // BoringSSL does without
    BN_set_flags(get(), BN_FLG_CONSTTIME);
#endif
  }
  operator BIGNUM*() const { return get(); }
};

struct RsaNumbers {
  Number n, e, d, p, q, dmp1, dmq1, iqmp;
};

// d and the CRT numbers follow from the primes.
bool DeriveFromPrimes(RsaNumbers* rsa, BN_CTX* ctx) {
  const Number p1, q1, phi;
  return !BN_is_zero(rsa->p) && !BN_is_zero(rsa->q) && BN_sub(p1, rsa->p, BN_value_one()) == 1 &&
         BN_sub(q1, rsa->q, BN_value_one()) == 1 && !BN_is_zero(p1) && !BN_is_zero(q1) &&
         BN_mul(phi, p1, q1, ctx) == 1 && BN_mod_inverse(rsa->d, rsa->e, phi, ctx) != nullptr &&
         BN_mod(rsa->dmp1, rsa->d, p1, ctx) == 1 && BN_mod(rsa->dmq1, rsa->d, q1, ctx) == 1 &&
         BN_mod_inverse(rsa->iqmp, rsa->q, rsa->p, ctx) != nullptr;
}

enum class Split { kDone, kFailed, kNoKey };

// One attempt to split n with a base: a square root of 1 other than +-1 shares a factor with n. No
// base of a key's has a power that is not 1 in the end, so one that has ends the search.
Split SplitWith(BN_ULONG base, const Number& odd, int twos, RsaNumbers* rsa, BN_CTX* ctx) {
  Number x, square;
  const Number minus_one;
  if (BN_set_word(square, base) != 1 || BN_sub(minus_one, rsa->n, BN_value_one()) != 1 ||
      BN_mod_exp(x, square, odd, rsa->n, ctx) != 1) {
    return Split::kNoKey;
  }
  for (int i = 0; i < twos; ++i) {
    if (BN_is_one(x) || BN_cmp(x, minus_one) == 0) return Split::kFailed;
    if (BN_mod_sqr(square, x, rsa->n, ctx) != 1) return Split::kNoKey;
    if (BN_is_one(square)) {
      const bool is_split = BN_sub_word(x, 1) == 1 && BN_gcd(rsa->p, x, rsa->n, ctx) == 1 &&
                            BN_div(rsa->q, nullptr, rsa->n, rsa->p, ctx) == 1;
      return is_split ? Split::kDone : Split::kNoKey;
    }
    x.swap(square);
  }
  return Split::kNoKey;
}

// Finds the primes of a key that came with d alone.
bool FindPrimes(RsaNumbers* rsa, BN_CTX* ctx) {
  const Number odd;
  if (BN_num_bits(rsa->d) > BN_num_bits(rsa->n) || BN_mul(odd, rsa->e, rsa->d, ctx) != 1 ||
      BN_sub_word(odd, 1) != 1 || BN_is_zero(odd) || !BN_is_odd(rsa->n)) {
    return false;
  }
  int twos = 0;
  for (; !BN_is_odd(odd); ++twos) {
    RequireCrypto(BN_rshift1(odd, odd) == 1);
  }
  // Each base of a real key fails with probability one half at most.
  Split split = Split::kFailed;
  for (BN_ULONG base = 2; split == Split::kFailed && base < 40; ++base) {
    split = SplitWith(base, odd, twos, rsa, ctx);
  }
  return split == Split::kDone;
}

// Whether 2 survives a public and a private operation, which it does for all purposes only when n
// is the product of the two primes and they are primes.
bool NumbersBelongTogether(const RsaNumbers& rsa, BN_CTX* ctx) {
  const Number product, x, two;
  return BN_mul(product, rsa.p, rsa.q, ctx) == 1 && BN_cmp(product, rsa.n) == 0 &&
         BN_set_word(two, 2) == 1 && BN_mod_exp(x, two, rsa.e, rsa.n, ctx) == 1 &&
         BN_mod_exp(x, x, rsa.d, rsa.n, ctx) == 1 && BN_cmp(x, two) == 0;
}

bool CompleteCrt(RsaNumbers* rsa, BN_CTX* ctx) {
  Number dmp1, dmq1, iqmp;
  dmp1.swap(rsa->dmp1);
  dmq1.swap(rsa->dmq1);
  iqmp.swap(rsa->iqmp);
  return DeriveFromPrimes(rsa, ctx) && BN_cmp(dmp1, rsa->dmp1) == 0 &&
         BN_cmp(dmq1, rsa->dmq1) == 0 && BN_cmp(iqmp, rsa->iqmp) == 0;
}

bool ReadNumbers(ByteView material, RsaNumbers* rsa, uint32_t* form) {
  ByteReader reader(material);
  uint32_t header[9];
  for (uint32_t& field : header) {
    if (!reader.TakeInteger(&field)) return false;
  }
  *form = header[0];
  const bool crt = *form == kCrtForm;
  if (header[1] != header[2] || (!crt && *form != kPrivateExponentForm)) return false;
  BIGNUM* const numbers[] = {rsa->n,    rsa->e,   crt ? rsa->p : rsa->d, rsa->q, rsa->dmp1,
                             rsa->dmq1, rsa->iqmp};
  for (size_t i = 0; i < (crt ? std::size(numbers) : 3); ++i) {
    ByteView bytes;
    if (!reader.TakeBytes(header[2 + i], &bytes)) return false;
    RequireCrypto(BN_bin2bn(bytes.data, static_cast<int>(bytes.size), numbers[i]) != nullptr);
  }
  return reader.remaining() == 0;
}

// Hands the numbers over.
PkeyPtr PkeyOf(RsaNumbers* numbers) {
  const RsaPtr rsa(RSA_new());
  RequireCrypto(rsa != nullptr);
  // None of the numbers is missing, which is all that could fail here.
  RSA_set0_key(rsa.get(), numbers->n.release(), numbers->e.release(), numbers->d.release());
  RSA_set0_factors(rsa.get(), numbers->p.release(), numbers->q.release());
  RSA_set0_crt_params(rsa.get(), numbers->dmp1.release(), numbers->dmq1.release(),
                      numbers->iqmp.release());
  return ToPkey(rsa, EVP_PKEY_set1_RSA);
}

}  // namespace

void ImportRsaMaterial(ByteView material, Key* key) {
  // Nothing longer can be a key that the TA takes, and numbers are slow to work with.
  constexpr size_t kMaxMaterial = 4096;
  RsaNumbers rsa;
  uint32_t form = 0;
  FailIf(material.size > kMaxMaterial || !ReadNumbers(material, &rsa, &form),
         KM_ERROR_INVALID_ARGUMENT);
  FailIf(BN_num_bits(rsa.n) > 4096, KM_ERROR_UNSUPPORTED_KEY_SIZE);
  FailIf(!BN_is_odd(rsa.n) || !BN_is_odd(rsa.e) || BN_is_one(rsa.e) || BN_num_bits(rsa.e) > 64,
         KM_ERROR_INVALID_ARGUMENT);
  const BnCtxPtr ctx(BN_CTX_new());
  RequireCrypto(ctx != nullptr);
  const bool complete = form == kCrtForm
                            ? CompleteCrt(&rsa, ctx.get())
                            : FindPrimes(&rsa, ctx.get()) && DeriveFromPrimes(&rsa, ctx.get());
  FailIf(!complete || !NumbersBelongTogether(rsa, ctx.get()), KM_ERROR_INVALID_ARGUMENT);
  key->pkey = PkeyOf(&rsa);
}

}  // namespace ta

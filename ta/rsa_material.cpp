#include "ta/rsa_material.h"

namespace ta {
namespace {

enum RsaForm : uint32_t { kPrivateExponentForm = 1, kCrtForm = 2 };

struct RsaNumbers {
  BnPtr n, e, d, p, q, dmp1, dmq1, iqmp;
};

BnPtr NewNumber() {
  BnPtr number(BN_new());
  RequireCrypto(number != nullptr);
#ifdef BN_FLG_CONSTTIME  // BoringSSL does without
  BN_set_flags(number.get(), BN_FLG_CONSTTIME);
#endif
  return number;
}

bool TakeNumber(ByteReader* reader, uint32_t length, BnPtr* out) {
  ByteView bytes;
  if (!reader->TakeBytes(length, &bytes)) return false;
  *out = NewNumber();
  RequireCrypto(BN_bin2bn(bytes.data, static_cast<int>(bytes.size), out->get()) != nullptr);
  return true;
}

// The five CRT numbers follow from the other two primes; so does d.
bool DeriveFromPrimes(RsaNumbers* rsa, BN_CTX* ctx) {
  const BnPtr p1 = NewNumber();
  const BnPtr q1 = NewNumber();
  const BnPtr gcd = NewNumber();
  const BnPtr lcm = NewNumber();
  if (BN_is_zero(rsa->p.get()) || BN_is_zero(rsa->q.get())) return false;
  rsa->d = NewNumber();
  rsa->dmp1 = NewNumber();
  rsa->dmq1 = NewNumber();
  rsa->iqmp = NewNumber();
  return BN_sub(p1.get(), rsa->p.get(), BN_value_one()) == 1 &&
         BN_sub(q1.get(), rsa->q.get(), BN_value_one()) == 1 && !BN_is_zero(p1.get()) &&
         !BN_is_zero(q1.get()) && BN_gcd(gcd.get(), p1.get(), q1.get(), ctx) == 1 &&
         BN_mul(lcm.get(), p1.get(), q1.get(), ctx) == 1 &&
         BN_div(lcm.get(), nullptr, lcm.get(), gcd.get(), ctx) == 1 &&
         BN_mod_inverse(rsa->d.get(), rsa->e.get(), lcm.get(), ctx) != nullptr &&
         BN_mod(rsa->dmp1.get(), rsa->d.get(), p1.get(), ctx) == 1 &&
         BN_mod(rsa->dmq1.get(), rsa->d.get(), q1.get(), ctx) == 1 &&
         BN_mod_inverse(rsa->iqmp.get(), rsa->q.get(), rsa->p.get(), ctx) != nullptr;
}

enum class Split { kDone, kFailed, kNoKey };

// One attempt to split n with a base: a square root of 1 other than +-1 shares a factor with n. No
// base of a key's has a power that is not 1 in the end, so one that has ends the search.
Split SplitWith(BN_ULONG base, const BIGNUM* odd, int twos, RsaNumbers* rsa, BN_CTX* ctx) {
  BnPtr x = NewNumber();
  BnPtr square = NewNumber();
  const BnPtr minus_one = NewNumber();
  if (BN_set_word(square.get(), base) != 1 ||
      BN_sub(minus_one.get(), rsa->n.get(), BN_value_one()) != 1 ||
      BN_mod_exp(x.get(), square.get(), odd, rsa->n.get(), ctx) != 1) {
    return Split::kNoKey;
  }
  for (int i = 0; i < twos; ++i) {
    if (BN_is_one(x.get()) || BN_cmp(x.get(), minus_one.get()) == 0) return Split::kFailed;
    if (BN_mod_sqr(square.get(), x.get(), rsa->n.get(), ctx) != 1) return Split::kNoKey;
    if (BN_is_one(square.get())) {
      rsa->p = NewNumber();
      rsa->q = NewNumber();
      const bool split = BN_sub_word(x.get(), 1) == 1 &&
                         BN_gcd(rsa->p.get(), x.get(), rsa->n.get(), ctx) == 1 &&
                         BN_div(rsa->q.get(), nullptr, rsa->n.get(), rsa->p.get(), ctx) == 1;
      return split ? Split::kDone : Split::kNoKey;
    }
    x.swap(square);
  }
  return Split::kNoKey;
}

// Finds the primes of a key that came with d alone.
bool FindPrimes(RsaNumbers* rsa, BN_CTX* ctx) {
  const BnPtr odd = NewNumber();
  if (BN_num_bits(rsa->d.get()) > BN_num_bits(rsa->n.get()) ||
      BN_mul(odd.get(), rsa->e.get(), rsa->d.get(), ctx) != 1 || BN_sub_word(odd.get(), 1) != 1 ||
      BN_is_zero(odd.get()) || !BN_is_odd(rsa->n.get())) {
    return false;
  }
  int twos = 0;
  while (!BN_is_odd(odd.get())) {
    RequireCrypto(BN_rshift1(odd.get(), odd.get()) == 1);
    ++twos;
  }
  // Each base of a real key fails with probability one half at most.
  Split split = Split::kFailed;
  for (BN_ULONG base = 2; split == Split::kFailed && base < 40; ++base) {
    split = SplitWith(base, odd.get(), twos, rsa, ctx);
  }
  return split == Split::kDone;
}

bool SameNumber(const BnPtr& a, const BnPtr& b) { return BN_cmp(a.get(), b.get()) == 0; }

// Whether 2 survives a public and a private operation, which it does for all purposes only when n
// is the product of the two primes and they are primes.
bool NumbersBelongTogether(const RsaNumbers& rsa, BN_CTX* ctx) {
  const BnPtr product = NewNumber();
  const BnPtr x = NewNumber();
  const BnPtr two = NewNumber();
  return BN_mul(product.get(), rsa.p.get(), rsa.q.get(), ctx) == 1 &&
         BN_cmp(product.get(), rsa.n.get()) == 0 && BN_set_word(two.get(), 2) == 1 &&
         BN_mod_exp(x.get(), two.get(), rsa.e.get(), rsa.n.get(), ctx) == 1 &&
         BN_mod_exp(x.get(), x.get(), rsa.d.get(), rsa.n.get(), ctx) == 1 &&
         BN_cmp(x.get(), two.get()) == 0;
}

bool CompleteCrt(RsaNumbers* rsa, BN_CTX* ctx) {
  const BnPtr dmp1 = std::move(rsa->dmp1);
  const BnPtr dmq1 = std::move(rsa->dmq1);
  const BnPtr iqmp = std::move(rsa->iqmp);
  return DeriveFromPrimes(rsa, ctx) && SameNumber(dmp1, rsa->dmp1) && SameNumber(dmq1, rsa->dmq1) &&
         SameNumber(iqmp, rsa->iqmp);
}

bool ReadNumbers(ByteView material, RsaNumbers* rsa, RsaForm* form) {
  ByteReader reader(material);
  uint32_t header[9];
  for (uint32_t& field : header) {
    if (!reader.TakeU32(&field)) return false;
  }
  if (header[1] != header[2] || (header[0] != kCrtForm && header[0] != kPrivateExponentForm)) {
    return false;
  }
  *form = static_cast<RsaForm>(header[0]);
  const bool crt = *form == kCrtForm;
  BnPtr* const numbers[] = {&rsa->n,    &rsa->e,   crt ? &rsa->p : &rsa->d, &rsa->q, &rsa->dmp1,
                            &rsa->dmq1, &rsa->iqmp};
  for (size_t i = 0; i < (crt ? std::size(numbers) : 3); ++i) {
    if (!TakeNumber(&reader, header[2 + i], numbers[i])) return false;
  }
  return reader.remaining() == 0;
}

// Takes the numbers.
PkeyPtr PkeyOf(RsaNumbers* numbers) {
  const RsaPtr rsa(RSA_new());
  RequireCrypto(rsa != nullptr);
  // None of the numbers is missing, which is all that could fail here.
  RSA_set0_key(rsa.get(), numbers->n.release(), numbers->e.release(), numbers->d.release());
  RSA_set0_factors(rsa.get(), numbers->p.release(), numbers->q.release());
  RSA_set0_crt_params(rsa.get(), numbers->dmp1.release(), numbers->dmq1.release(),
                      numbers->iqmp.release());
  return ToPkey(rsa);
}

}  // namespace

void ImportRsaMaterial(ByteView material, Key* key) {
  // Nothing longer can be a key that the TA takes, and numbers are slow to work with.
  constexpr size_t kMaxMaterial = 4096;
  RsaNumbers rsa;
  RsaForm form = kCrtForm;
  FailIf(material.size > kMaxMaterial || !ReadNumbers(material, &rsa, &form),
         KM_ERROR_INVALID_ARGUMENT);
  FailIf(BN_num_bits(rsa.n.get()) > 4096, KM_ERROR_UNSUPPORTED_KEY_SIZE);
  FailIf(!BN_is_odd(rsa.n.get()) || !BN_is_odd(rsa.e.get()) || BN_is_one(rsa.e.get()) ||
             BN_num_bits(rsa.e.get()) > 64,
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

#include "conformance/Rules.h"

#include <algorithm>
#include <iterator>

namespace mirel {
namespace {

constexpr ConformanceRule kRules[] = {
    {"CR-01", "module", "the module is in its place and can be loaded"},
    {"CR-02", "module", "it exports C_GetFunctionList, which gives a list"},
    {"CR-03", "module", "C_Initialize without parameters starts it"},
    {"CR-04", "module", "a second C_Initialize answers CKR_CRYPTOKI_ALREADY_INITIALIZED"},
    {"CR-05", "module", "calls may come from different threads, one at a time"},
    {"CR-06", "module", "all functions that are called are there"},
    {"CR-07", "module", "several read-only sessions can be open"},
    {"CR-08", "slots", "slotDescription is an ASCII name that no other slot has"},
    {"CR-09", "slots", "texts are padded with blanks"},
    {"CR-10", "module", "on macOS it is built for the processor, and signed"},
    {"CR-11", "slots", "1 to 10 slots hold a token"},
    {"CR-12", "objects", "public keys and certificates are token objects that show without a login"},
    {"CR-13", "objects", "a certificate and its public key have the same CKA_ID"},
    {"CR-14", "objects", "no public key and no certificate lacks a label, an ID, a key type or a value"},
    {"CR-15", "objects", "each key pair has an ID of its own"},
    {"CR-16", "objects", "the certificate is the one of its public key"},
    {"CR-17", "objects", "the private key is on the card"},
    {"CR-18", "objects", "certificates are X.509 in DER"},
    {"CR-19", "objects", "keys are RSA or EC"},
    {"CR-20", "objects", "the value of a certificate has at most 2000 bytes"},
    {"CR-21", "objects", "label and ID of a certificate have at most 256 bytes"},
    {"CR-22", "objects", "label and ID of a public key have at most 2000 bytes"},
    {"CR-23", "objects", "the ID of a key that is used has at most 254 bytes"},
    {"CR-24", "objects", "CKA_MODULUS of a public key has 1 to 639 bytes"},
    {"CR-25", "objects", "CKA_EC_POINT has 1 to 200 bytes"},
    {"CR-26", "objects", "CKA_EC_PARAMS is there"},
    {"CR-27", "objects", "there are at most 160 public keys"},
    {"CR-28", "objects", "there are at most 160 certificates"},
    {"CR-29", "objects", "the key usage has digitalSignature or keyEncipherment"},
    {"CR-30", "token", "the card has a serial number or a label of its own"},
    {"CR-31", "login", "a PIN may have 8 characters or fewer"},
    {"CR-32", "login", "the PIN is entered at the computer"},
    {"CR-33", "login", "C_Login accepts the PIN of the user"},
    {"CR-34", "login", "after it the session shows a user state and no device error"},
    {"CR-35", "login", "after a wrong PIN ulDeviceError has the number of tries, or 0"},
    {"CR-36", "signing", "keys that sign are RSA, of 2048 bits at most"},
    {"CR-37", "signing", "CKA_MODULUS of the public key is readable after the login"},
    {"CR-38", "signing", "the private key is a token object with the ID of the public key"},
    {"CR-39", "signing", "C_Sign with CKM_RSA_X_509 signs a whole block"},
    {"CR-40", "signing", "\"PSS\" is not in the name of a key"},
    {"CR-41", "signing", "CKA_ALWAYS_AUTHENTICATE is false"},
    {"CR-42", "signing", "RSA-PSS with SHA-1 verifies"},
    {"CR-43", "signing", "RSA-PSS with SHA-256 verifies"},
    {"CR-44", "signing", "RSA-PSS with SHA-384 verifies"},
    {"CR-45", "signing", "RSA-PSS with SHA-512 verifies"},
    {"CR-46", "signing", "PKCS #1 v1.5 with SHA-256 verifies (a card may do without it)"},
    {"CR-47", "decryption", "keys that decrypt are RSA"},
    {"CR-48", "decryption", "CKA_MODULUS of the private key is readable"},
    {"CR-49", "decryption", "C_Decrypt with CKM_RSA_PKCS gives the plain text"},
    {"CR-50", "removal", "without its card a slot holds no token, and its sessions fail"},
    {"CR-51", "robustness", "C_GetAttributeValue with a null pointer gives the length"},
    {"CR-52", "robustness", "a buffer that is too small is refused, and nothing written behind it"},
    {"CR-53", "login", "the PIN need not be changed first (a card may come so)"},
};
static_assert(std::size(kRules) == kNumRules);

}  // namespace

std::span<const ConformanceRule> conformanceRules() noexcept { return kRules; }

bool RuleResults::isBad(RuleID rule) const {
  const Held& held = held_[static_cast<std::size_t>(rule)];
  return held && (held->first == RuleVerdict::kFail || held->first == RuleVerdict::kUnknown);
}

bool RuleResults::isAny(RuleVerdict verdict) const {
  return std::any_of(held_.begin(), held_.end(),
                     [verdict](const Held& held) { return held && held->first == verdict; });
}

void RuleResults::skipRest(const std::string& reason) {
  for (Held& held : held_) {
    if (!held) held = std::pair{RuleVerdict::kSkip, reason};
  }
}

std::vector<RuleResult> RuleResults::soFar() const {
  std::vector<RuleResult> results;
  for (std::size_t i = 0; i < kNumRules; ++i) {
    if (const Held& held = held_[i]) results.push_back({kRules[i], held->first, held->second});
  }
  return results;
}

std::vector<RuleResult> RuleResults::taken() && {
  std::vector<RuleResult> results;
  for (std::size_t i = 0; i < kNumRules; ++i) {
    auto& [verdict, evidence] = held_[i].emplace(held_[i].value_or(std::pair{RuleVerdict::kSkip, ""}));
    results.push_back({kRules[i], verdict, std::move(evidence)});
  }
  return results;
}

}  // namespace mirel

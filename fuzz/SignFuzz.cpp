// A user signs with a key of the card and has the signature verified, while the module answers what the input
// says. A signature that is called good is verified here once more, with OpenSSL and the key that the good
// card really has.

#include <openssl/rsa.h>

#include <algorithm>
#include <string>

#include "Check.h"
#include "Input.h"
#include "KeyRun.h"
#include "host/KeyAbility.h"
#include "host/SoftwareKey.h"
#include "host/Verification.h"

namespace mirel::fuzz {
namespace {

using enum SecKeyAlgorithm;

/// RSA-PSS of a message with SHA-256 when the input says nothing.
SecKeyAlgorithm algorithmFrom(Input& input) {
  const std::size_t which = input.byte();
  return which == 0 ? kSecKeyAlgorithmRSASignatureMessagePSSSHA256
                    : kSecKeyAlgorithms[which % kSecKeyAlgorithms.size()].algorithm;
}

test::Value dataFrom(Input& input, SecKeyAlgorithm algorithm) {
  test::Value data = input.bytes(3000);
  const auto hash = hashOf(algorithm);
  const bool isDigest = hash && nameOf(algorithm).find("Digest") != std::string_view::npos;
  // A digest has its size, mostly.
  if (isDigest && input.byte() < 0xF0) data.resize(factsOf(*hash).size);
  return data;
}

/// The same question put to OpenSSL for the key of the good card; true where it is not asked.
bool isSignature(SecKeyAlgorithm algorithm, const Signature& made) {
  const auto hash = hashOf(algorithm);
  if (!hash) return true;
  const bool isPss = nameOf(algorithm).find("PSS") != std::string_view::npos;
  const test::Value value(made.value.view().begin(), made.value.view().end());
  const test::Value digest(made.data.view().begin(), made.data.view().end());
  return goodKey().verifies(value, digest, std::string{factsOf(*hash).name}.c_str(),
                            isPss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING,
                            static_cast<int>(digest.size()));
}

void sign(Input& input) {
  KeyRun run{input, kSigner};
  if (!run.hasClient()) return;
  const PublishedKey* const key = run.keyFrom(input);
  if (!key) return;
  const SecKeyAlgorithm algorithm = algorithmFrom(input);
  const test::Value data = dataFrom(input, algorithm);
  GivenData given{data, input.byte() + std::size_t{1}};

  const auto made = run.client().sign(*key, algorithm, given, run.pins());
  if (!made) run.checkFailure(made.failure());
  const PublishedCertificate* const certificate = run.certificateOf(*key);
  if (!made || !certificate) return;
  const auto verified = verifySignature(*certificate, *key, algorithm, *made);
  if (!verified) return run.checkFailure(verified.failure());
  const auto& signer = goodCertificates().front();
  if (certificate->data == Bytes{signer}) check(isSignature(algorithm, *made), "a good signature is one");
}

/// What must come out where neither the input nor the surroundings are in the way.
void signWell(Input& input) {
  KeyRun run{input, kSigner};
  const PublishedKey* const key = run.hasClient() ? run.keyFrom(input) : nullptr;
  if (!run.allIsWell() || !run.pins().areGood()) return;
  check(key != nullptr, "the good card has a key");
  constexpr auto kAlgorithm = kSecKeyAlgorithmRSASignatureMessagePSSSHA256;
  if (!mayWork(*key, kAlgorithm)) return;
  GivenData given{input.bytes(3000), 100};
  const auto made = run.client().sign(*key, kAlgorithm, given, run.pins());
  if (!run.allIsWell()) return;
  check(bool{made}, "the good card signs");
  check(bool{verifySignature(*run.certificateOf(*key), *key, kAlgorithm, *made)},
        "and the signature is good");
}

}  // namespace

void runTarget(Input& input) { input.flag() ? signWell(input) : sign(input); }

}  // namespace mirel::fuzz

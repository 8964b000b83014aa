// A user asks for a key exchange with a key of the card, while the module answers what the input says.

#include "Check.h"
#include "Input.h"
#include "KeyRun.h"

namespace mirel::fuzz {
namespace {

SecKeyAlgorithm algorithmFrom(Input& input) {
  const std::size_t which = input.byte();
  return which == 0 ? SecKeyAlgorithm::kSecKeyAlgorithmECDHKeyExchangeStandard
                    : kSecKeyAlgorithms[which % kSecKeyAlgorithms.size()].algorithm;
}

/// A point of the size that P-256 has when the input says nothing.
test::Value pointFrom(Input& input) {
  if (input.flag()) return input.bytes(3000);
  test::Value point = test::patternValue(65, 7);
  point[0] = 0x04;
  return point;
}

}  // namespace

void runTarget(Input& input) {
  KeyRun run{input, kAgree};
  if (!run.hasClient()) return;
  const PublishedKey* const key = run.keyFrom(input);
  if (!key) return;
  const SecKeyAlgorithm algorithm = algorithmFrom(input);
  const test::Value point = pointFrom(input);
  GivenData given{point, input.byte() + std::size_t{1}};
  const auto agreed = run.client().exchange(*key, algorithm, given, run.pins());
  if (!agreed) return run.checkFailure(agreed.failure());
  // The card layer keeps the secret in the card, and hands nothing out.
  check(agreed->secret.size() == 0, "no secret leaves the card");
}

}  // namespace mirel::fuzz

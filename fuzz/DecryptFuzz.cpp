// A user decrypts with a key of the card, while the module answers what the input says. For the scripted
// module a cipher text is the padded block itself (see test::cipherOf).

#include <algorithm>
#include <string_view>

#include "Check.h"
#include "Input.h"
#include "KeyRun.h"
#include "host/KeyAbility.h"

namespace mirel::fuzz {
namespace {

using enum SecKeyAlgorithm;

constexpr std::size_t kBlockSize = 128;  // bytes
constexpr std::size_t kLongestPlain = kBlockSize - 11;

/// That of the good card when the input says nothing.
SecKeyAlgorithm algorithmFrom(Input& input) {
  const std::size_t which = input.byte();
  return which == 0 ? kSecKeyAlgorithmRSAEncryptionPKCS1
                    : kSecKeyAlgorithms[which % kSecKeyAlgorithms.size()].algorithm;
}

}  // namespace

void runTarget(Input& input) {
  KeyRun run{input, kVault};
  if (!run.hasClient()) return;
  const PublishedKey* const key = run.keyFrom(input);
  if (!key) return;
  const SecKeyAlgorithm algorithm = algorithmFrom(input);
  const bool isRandom = input.flag();
  const test::Value text = input.bytes(isRandom ? 3000 : kLongestPlain);
  GivenData given{isRandom ? text : test::cipherOf(text, kBlockSize), input.byte() + std::size_t{1}};

  const auto plain = run.client().decrypt(*key, algorithm, given, run.pins());
  if (!plain) run.checkFailure(plain.failure());
  const bool isAsked = !isRandom && algorithm == kSecKeyAlgorithmRSAEncryptionPKCS1 && run.moduleIsHonest() &&
                       !run.module().decryptsRaw();
  if (!isAsked) return;
  if (plain) {
    check(
        !plain->isNull() && std::equal(text.begin(), text.end(), plain->view().begin(), plain->view().end()),
        "a plain text is the one that was encrypted");
  }
  const bool isGood = run.allIsWell() && run.pins().areGood() && mayWork(*key, algorithm);
  check(bool{plain} || !isGood, "the good card decrypts");
}

}  // namespace mirel::fuzz

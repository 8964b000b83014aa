#include <algorithm>
#include <span>

#include "Commands.h"
#include "Files.h"
#include "Json.h"
#include "Output.h"
#include "Session.h"
#include "host/KeyAbility.h"

namespace mirel::cli {
namespace {

constexpr mode_t kSignatureMode = 0666;
constexpr const char* kNoVerify = "--no-verify";

/// False when the card is known to have made none: what its layers answer then is empty, or zeros. Also false
/// for a signature that is not as long as the modulus (RFC 8017, section 8), which no key of that size makes.
bool mayBeSignature(const Signature& signature, const PublishedKey& key) {
  const std::span bytes = signature.value.view();
  return !signature.fault && bytes.size() == modulusSizeOf(key) &&
         std::any_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte != 0; });
}

Failure andNothingWritten(Failure failure) {
  failure.why.append("; nothing was written");
  return failure;
}

/// What was done, for people.
std::string summary(const ChosenKey& chosen, SecKeyAlgorithm algorithm, const Signature& signature) {
  std::string text =
      "Signed with the key " + idText(chosen.key.objectID) + " by " + std::string{nameOf(algorithm)};
  if (signature.performed != algorithm)
    text.append(", asked of the card as ").append(nameOf(signature.performed));
  const auto& why = signature.whyNotVerified;
  return text.append("; ").append(why ? why->why : "the signature verifies with its certificate").append(".");
}

std::string jsonText(const ChosenKey& chosen, SecKeyAlgorithm algorithm, const Signature& signature) {
  return jsonLines("sign", Json{{"key", chosen.key.objectID.toUtf8()},
                                {"algorithm", nameOf(algorithm)},
                                {"performed", nameOf(signature.performed)},
                                {"verified", !signature.whyNotVerified},
                                {"signatureHex", hexOf(signature.value)}});
}

Result<void> run(Session& session) {
  const Options& options = session.options();
  if (!options.json && goesToTerminal(options.out)) {
    return Failure{FailureKind::kWrongUsage, "wrong usage", "a signature is no text for a terminal",
                   "give a file with --out, or redirect the output"};
  }
  const auto request = session.connectFor(KeyOperation::kSign);
  if (!request) return request.failure();
  const auto& [algorithm, input, chosen] = *request;

  const auto signature = session.client().sign(chosen.key, algorithm, *input, session.pins());
  if (!signature) return signature.failure();
  const auto& why = signature->whyNotVerified;
  if (why && (!options.has(kNoVerify) || !mayBeSignature(*signature, chosen.key))) {
    const bool isExplainable = why->kind == FailureKind::kVerificationFailed;
    return andNothingWritten(isExplainable ? session.explained(*why, chosen.key) : *why);
  }
  if (!options.json || options.out) {
    if (auto written = session.write(signature->value.view(), kSignatureMode); !written) return written;
  }
  if (options.json) return writeOutput(jsonText(chosen, algorithm, *signature));
  writeMessage(summary(chosen, algorithm, *signature));
  return {};
}

constexpr CommandOption kOptions[] = {
    {CommandOption::Kind::kKey},
    {CommandOption::Kind::kAlgorithm, "The algorithm (default: PS256 with an RSA key, ES256 with an EC key)"},
    {CommandOption::Kind::kInput, "What to sign (default: standard input)"},
    {CommandOption::Kind::kOutput, "Where to write the signature (default: standard output)"},
    {CommandOption::Kind::kFlag, "Write the signature also when it does not verify", kNoVerify},
    {CommandOption::Kind::kPin},
};

}  // namespace

const Command signCommand{"sign", "Sign with a key of the card, and verify the signature", kOptions, run};

}  // namespace mirel::cli

#include <algorithm>
#include <nlohmann/json.hpp>
#include <span>

#include "Commands.h"
#include "Files.h"
#include "KeyJob.h"
#include "Output.h"
#include "host/Verification.h"

namespace mirel::cli {
namespace {

using Json = nlohmann::ordered_json;

constexpr mode_t kSignatureMode = 0666;

/// False when the card is known to have made none: what its layers answer then is empty, or zeros. Also false
/// for a signature that is not as long as the modulus (RFC 8017, section 8), which no key of that size makes.
bool mayBeSignature(const Signature& signature, const PublishedKey& key) {
  const std::span bytes = signature.value.view();
  return !signature.fault && bytes.size() == modulusSizeOf(key) &&
         std::any_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte != 0; });
}

/// What was done, for people.
std::string summary(const ChosenKey& chosen, SecKeyAlgorithm algorithm, const Signature& signature,
                    bool verified) {
  std::string text =
      "Signed with the key \"" + displayed(chosen.key.objectID) + "\" by " + std::string{nameOf(algorithm)};
  if (signature.performed != algorithm)
    text.append(", asked of the card as ").append(nameOf(signature.performed));
  return text.append(verified ? "; the signature verifies with its certificate."
                              : "; the signature was not verified.");
}

std::string jsonText(const ChosenKey& chosen, SecKeyAlgorithm algorithm, const Signature& signature,
                     bool verified) {
  return jsonLines(Json{{"key", chosen.key.objectID.toUtf8()},
                        {"algorithm", nameOf(algorithm)},
                        {"performed", nameOf(signature.performed)},
                        {"verified", verified},
                        {"signatureHex", hexOf(signature.value)}});
}

}  // namespace

ExitCode runSign(Host& host, const Options& options) {
  if (!options.json && goesToTerminal(options.out)) {
    return report({FailureKind::kBadInput, "wrong usage", "a signature is no text for a terminal",
                   "give a file with --out, or redirect the output"});
  }
  const auto started =
      startDataJob(host, options, SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA256);
  if (!started) return report(started.failure());
  const auto& [algorithm, input, job, chosen] = *started;

  const auto signedData = job.client->sign(chosen.key, algorithm, *input, *job.pins);
  if (!signedData) return report(signedData.failure());
  const auto& signature = *signedData;
  const bool verify = !options.noVerify;
  if (verify || !mayBeSignature(signature, chosen.key)) {
    const auto verified = verifySignature(chosen.certificate, chosen.key, algorithm, signature);
    if (!verified) {
      Failure failure = verified.failure();
      failure.why.append("; nothing was written");
      return report(failure);
    }
  }
  const bool asJson = options.json;
  if (!asJson || options.out) {
    if (const auto written = writeFile(options.out, signature.value.view(), kSignatureMode); !written)
      return report(written.failure());
  }
  if (asJson)
    return writeOutput(jsonText(chosen, algorithm, signature, verify)) ? ExitCode::kSuccess
                                                                       : ExitCode::kFileFailure;
  writeMessage(summary(chosen, algorithm, signature, verify));
  return ExitCode::kSuccess;
}

}  // namespace mirel::cli

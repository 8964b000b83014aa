#include <nlohmann/json.hpp>

#include "Commands.h"
#include "Files.h"
#include "KeyJob.h"
#include "Output.h"
#include "platform/Log.h"

namespace mirel::cli {
namespace {

using Json = nlohmann::ordered_json;

constexpr mode_t kPlainTextMode = 0600;

/// True for text that a terminal shows as it is.
bool isPrintableText(const Bytes& bytes) {
  std::string text{bytes.view().begin(), bytes.view().end()};
  std::erase_if(text, [](char c) { return c == '\n' || c == '\t'; });
  return printableLine(text) == text;
}

bool isOaep(SecKeyAlgorithm algorithm) noexcept {
  switch (algorithm) {
    case SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionOAEPSHA1:
    case SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionOAEPSHA224:
    case SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionOAEPSHA256:
    case SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionOAEPSHA384:
    case SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionOAEPSHA512: return true;
    default: return false;
  }
}

}  // namespace

ExitCode runDecrypt(Host& host, const Options& options) {
  // Some modules answer a wrong padding with random bytes, so afterwards nobody could tell that it failed.
  if (const auto named = secKeyAlgorithmNamed(options.algorithm.value_or("")); named && isOaep(*named)) {
    return report({FailureKind::kNotSupported,
                   std::string{nameOf(*named)} + " never decrypts with these cards",
                   "whatever the algorithm, the token takes off the padding of PKCS #1 v1.5",
                   "have the data encrypted by PKCS #1 v1.5: RSAEncryptionPKCS1"});
  }
  const auto started = startDataJob(host, options, SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionPKCS1);
  if (const auto* failure = std::get_if<Failure>(&started)) return report(*failure);
  const auto& [algorithm, input, job, chosen] = std::get<DataJob>(started);

  const auto decrypted = job.client->decrypt(chosen.key, algorithm, *input, *job.pins);
  if (const auto* failure = std::get_if<Failure>(&decrypted)) return report(*failure);
  const Bytes& plain = std::get<Bytes>(decrypted);
  if (!options.json && goesToTerminal(options.out) && !isPrintableText(plain)) {
    return report({FailureKind::kBadInput, "the plain text is not shown", "it is no text for a terminal",
                   "give a file with --out, or redirect the output"});
  }
  if (!options.json || options.out) {
    if (const auto trouble = writeFile(options.out, plain.view(), kPlainTextMode)) return report(*trouble);
  }
  if (!options.json) return ExitCode::kSuccess;
  Json json{{"key", chosen.key.objectID.toUtf8()}, {"algorithm", nameOf(algorithm)}, {"size", plain.size()}};
  if (!options.out) json["plainTextHex"] = hexOf(plain);
  return writeOutput(jsonLines(json)) ? ExitCode::kSuccess : ExitCode::kFileTrouble;
}

}  // namespace mirel::cli

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

}  // namespace

ExitCode runDecrypt(Host& host, const Options& options) {
  const auto algorithm = algorithmOf(options, SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionPKCS1);
  if (const auto* failure = std::get_if<Failure>(&algorithm)) return report(*failure);
  if (const auto trouble = writingTrouble(options.out)) return report(*trouble);
  const auto input = FileInput::open(options.in);
  if (const auto* failure = std::get_if<Failure>(&input)) return report(*failure);

  const auto started = startKeyJob(host, options);
  if (const auto* failure = std::get_if<Failure>(&started)) return report(*failure);
  const auto& job = std::get<KeyJob>(started);
  const auto found = keyOf(job.card, options);
  if (const auto* failure = std::get_if<Failure>(&found)) return report(*failure);
  const auto& chosen = std::get<ChosenKey>(found);

  const auto decrypted = job.client->decrypt(chosen.key, std::get<SecKeyAlgorithm>(algorithm),
                                             *std::get<std::unique_ptr<FileInput>>(input), *job.pins);
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
  Json json{{"key", chosen.key.objectID.toUtf8()},
            {"algorithm", nameOf(std::get<SecKeyAlgorithm>(algorithm))},
            {"size", plain.size()}};
  if (!options.out) json["plainTextHex"] = hexOf(plain);
  return writeOutput(jsonLines(json)) ? ExitCode::kSuccess : ExitCode::kFileTrouble;
}

}  // namespace mirel::cli

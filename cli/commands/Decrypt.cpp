#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "Commands.h"
#include "Files.h"
#include "Json.h"
#include "Output.h"
#include "Session.h"
#include "host/AlgorithmNames.h"
#include "host/KeyAbility.h"
#include "platform/Log.h"
#include "platform/Memory.h"

namespace mirel::cli {
namespace {

constexpr mode_t kPlainTextMode = 0600;

/// True for text that a terminal shows as it is. Like all that follows it leaves no copy of the plain text.
bool isPrintableText(const Bytes& bytes) {
  std::string_view rest{reinterpret_cast<const char*>(bytes.view().data()), bytes.size()};
  while (!rest.empty()) {
    const std::string_view piece = rest.substr(0, rest.find_first_of("\n\t"));
    if (!isPrintableLine(piece)) return false;
    rest.remove_prefix(std::min(piece.size() + 1, rest.size()));
  }
  return true;
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

/// Why the card gave no plain text may stand in its objects: another key, another certificate, no private
/// key.
Failure explained(Failure failure, Session& session, const PublishedKey& key) {
  if (failure.kind != FailureKind::kCardRefuses) return failure;
  return session.explained(std::move(failure), key);
}

Result<void> decryptAndWrite(Session& session) {
  const Options& options = session.options();
  const auto request = session.connectFor(KeyOperation::kDecrypt);
  if (!request) return request.failure();
  const auto& [algorithm, input, chosen] = *request;

  const auto plain = session.client().decrypt(chosen.key, algorithm, *input, session.pins());
  if (!plain) return explained(plain.failure(), session, chosen.key);
  if (!options.json && goesToTerminal(options.out) && !isPrintableText(*plain)) {
    return Failure{FailureKind::kBadInput, "the plain text is not shown", "it is no text for a terminal",
                   "give a file with --out, or redirect the output"};
  }
  if (!options.json) return session.write(plain->view(), kPlainTextMode);
  Json json{{"key", chosen.key.objectID.toUtf8()}, {"algorithm", nameOf(algorithm)}, {"size", plain->size()}};
  if (!options.out) {
    const Bytes text = secretJsonLines("decrypt", std::move(json), "plainTextHex", *plain);
    return session.write(text.view(), kPlainTextMode);
  }
  if (auto written = session.write(plain->view(), kPlainTextMode); !written) return written;
  return writeOutput(jsonLines("decrypt", json));
}

Result<void> run(Session& session) {
  // Some modules answer a wrong padding with random bytes, so afterwards nobody could tell that it failed.
  const auto named = algorithmNamed(session.options().algorithm.value_or(""), KeyOperation::kDecrypt);
  if (named && isOaep(*named)) {
    return Failure{FailureKind::kNotSupported,
                   std::string{nameOf(*named)} + " never decrypts with these cards",
                   "whatever the algorithm, the token takes off the padding of PKCS #1 v1.5",
                   "have the data encrypted by PKCS #1 v1.5: RSAEncryptionPKCS1"};
  }
  auto done = decryptAndWrite(session);
  wipeStackLeftBehind();
  return done;
}

constexpr CommandOption kOptions[] = {
    {CommandOption::Kind::kKey},
    {CommandOption::Kind::kAlgorithm, "The algorithm (default: RSAEncryptionPKCS1 with an RSA key)"},
    {CommandOption::Kind::kInput, "What to decrypt (default: standard input)"},
    {CommandOption::Kind::kOutput, "Where to write the plain text (default: standard output)"},
    {CommandOption::Kind::kPin},
};

}  // namespace

const Command decryptCommand{"decrypt", "Decrypt with a key of the card", kOptions, run};

}  // namespace mirel::cli

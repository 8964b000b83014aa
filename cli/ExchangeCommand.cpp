#include "Commands.h"
#include "Files.h"
#include "KeyJob.h"
#include "Output.h"

namespace mirel::cli {
namespace {

constexpr mode_t kSecretMode = 0600;

}  // namespace

ExitCode runExchange(Host& host, const Options& options) {
  const auto started = startDataJob(host, options, SecKeyAlgorithm::kSecKeyAlgorithmECDHKeyExchangeStandard);
  if (const auto* failure = std::get_if<Failure>(&started)) return report(*failure);
  const auto& [algorithm, input, job, chosen] = std::get<DataJob>(started);

  const auto exchanged = job.client->exchange(chosen.key, algorithm, *input, *job.pins);
  if (const auto* failure = std::get_if<Failure>(&exchanged)) return report(*failure);
  const Bytes& secret = std::get<KeyExchange>(exchanged).secret;
  if (secret.isNull()) {
    return report({FailureKind::kNotSupported, "there is no shared secret",
                   "the token accepts the key exchange, but answers nothing",
                   "use another key store for key agreement: this one offers it only in name"});
  }
  if (const auto trouble = writeFile(options.out, secret.view(), kSecretMode)) return report(*trouble);
  return ExitCode::kSuccess;
}

}  // namespace mirel::cli

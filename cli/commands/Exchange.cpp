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
  if (!started) return report(started.failure());
  const auto& [algorithm, input, job, chosen] = *started;

  const auto exchanged = job.client->exchange(chosen.key, algorithm, *input, *job.pins);
  if (!exchanged) return report(exchanged.failure());
  const Bytes& secret = exchanged->secret;
  if (secret.isNull()) {
    return report({FailureKind::kNotSupported, "there is no shared secret",
                   "the token accepts the key exchange, but answers nothing",
                   "use another key store for key agreement: this one offers it only in name"});
  }
  if (const auto written = writeFile(options.out, secret.view(), kSecretMode); !written)
    return report(written.failure());
  return ExitCode::kSuccess;
}

}  // namespace mirel::cli

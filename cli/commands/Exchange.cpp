#include "Commands.h"
#include "Files.h"
#include "Json.h"
#include "Output.h"
#include "Session.h"
#include "host/KeyAbility.h"

namespace mirel::cli {
namespace {

constexpr mode_t kSecretMode = 0600;

Result<void> run(Session& session) {
  const auto request = session.connectFor(KeyOperation::kExchangeKeys);
  if (!request) return request.failure();
  const auto& [algorithm, input, chosen] = *request;

  const auto exchanged = session.client().exchange(chosen.key, algorithm, *input, session.pins());
  if (!exchanged) return exchanged.failure();
  if (exchanged->secret.isNull()) {
    const auto never = reasonNeverTo(KeyOperation::kExchangeKeys, chosen.key);
    return refusalBecauseOf(*never, KeyOperation::kExchangeKeys);
  }
  const Options& options = session.options();
  if (!options.json) return session.write(exchanged->secret.view(), kSecretMode);
  Json json{{"key", chosen.key.objectID.toUtf8()},
            {"algorithm", nameOf(algorithm)},
            {"size", exchanged->secret.size()}};
  if (!options.out) {
    const Bytes text = secretJsonLines("exchange", std::move(json), "sharedSecretHex", exchanged->secret);
    return session.write(text.view(), kSecretMode);
  }
  if (auto written = session.write(exchanged->secret.view(), kSecretMode); !written) return written;
  return writeOutput(jsonLines("exchange", json));
}

constexpr CommandOption kOptions[] = {
    {CommandOption::Kind::kKey},
    {CommandOption::Kind::kAlgorithm, "The algorithm (default: ECDHKeyExchangeStandard)"},
    {CommandOption::Kind::kInput,
     "The other party's public key, an uncompressed point (default: standard input)"},
    {CommandOption::Kind::kOutput, "Where to write the shared secret (default: standard output)"},
    {CommandOption::Kind::kPin},
};

}  // namespace

const Command exchangeCommand{"exchange", "Ask for a key exchange, and show what the token answers", kOptions,
                              run};

}  // namespace mirel::cli

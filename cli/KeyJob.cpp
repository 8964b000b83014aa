#include "KeyJob.h"

#include "Output.h"
#include "PinEntry.h"

namespace mirel::cli {
namespace {

/// The algorithm of the options, or `byDefault`; a usage failure for a name that no algorithm has.
Result<SecKeyAlgorithm> algorithmOf(const Options& options, SecKeyAlgorithm byDefault) {
  if (!options.algorithm) return byDefault;
  if (const auto algorithm = secKeyAlgorithmNamed(*options.algorithm)) return *algorithm;
  return Failure{FailureKind::kBadInput, "wrong usage",
                 "there is no algorithm \"" + displayed(Text::fromUtf8(*options.algorithm)) + "\"",
                 "see the names with: mireltoken algorithms"};
}

}  // namespace

Result<KeyJob> startKeyJob(Host& host, const Options& options) {
  auto inserted = host.insert(options.reader ? Text::fromUtf8(*options.reader) : Text{});
  if (!inserted) return inserted.failure();
  KeyJob job{std::move(*inserted), nullptr, nullptr};
  auto client = host.newClient(job.card);
  if (!client) return client.failure();
  job.client = std::move(*client);
  job.pins = pinSourceFor(options, [&host, reader = job.card.reader] { return host.pinState(reader); });
  return job;
}

Result<ChosenKey> keyOf(const InsertedCard& card, const Options& options) {
  return chooseKey(card, options.key.value_or(std::string{}));
}

Result<DataJob> startDataJob(Host& host, const Options& options, SecKeyAlgorithm byDefault) {
  const auto algorithm = algorithmOf(options, byDefault);
  if (!algorithm) return algorithm.failure();
  if (const auto writable = checkWriting(options.out); !writable) return writable.failure();
  auto input = FileInput::open(options.in);
  if (!input) return input.failure();

  auto started = startKeyJob(host, options);
  if (!started) return started.failure();
  auto& job = *started;
  const auto found = keyOf(job.card, options);
  if (!found) return found.failure();
  return DataJob{*algorithm, std::move(*input), std::move(job), *found};
}

std::string hexOf(const Bytes& bytes) { return hexOf(Text::fromBytes(bytes.view())); }

}  // namespace mirel::cli

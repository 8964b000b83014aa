#include "KeyJob.h"

#include "Output.h"
#include "PinEntry.h"

namespace mirel::cli {
namespace {

/// The algorithm of the options, or `byDefault`; a usage failure for a name that no algorithm has.
Outcome<SecKeyAlgorithm> algorithmOf(const Options& options, SecKeyAlgorithm byDefault) {
  if (!options.algorithm) return byDefault;
  if (const auto algorithm = secKeyAlgorithmNamed(*options.algorithm)) return *algorithm;
  return Failure{FailureKind::kBadInput, "wrong usage",
                 "there is no algorithm \"" + displayed(Text::fromUtf8(*options.algorithm)) + "\"",
                 "see the names with: mireltoken algorithms"};
}

}  // namespace

ExitCode report(const Failure& failure) {
  writeMessage(failureLine(failure));
  return exitCodeOf(failure.kind);
}

Outcome<KeyJob> startKeyJob(Host& host, const Options& options) {
  auto inserted = host.insert(options.reader ? Text::fromUtf8(*options.reader) : Text{});
  if (const auto* failure = std::get_if<Failure>(&inserted)) return *failure;
  KeyJob job{std::move(std::get<InsertedCard>(inserted)), nullptr, nullptr};
  auto client = host.newClient(job.card);
  if (const auto* failure = std::get_if<Failure>(&client)) return *failure;
  job.client = std::move(std::get<std::unique_ptr<KeyClient>>(client));
  job.pins = pinSourceFor(options, [&host, reader = job.card.reader] { return host.pinState(reader); });
  return job;
}

Outcome<ChosenKey> keyOf(const InsertedCard& card, const Options& options) {
  return chooseKey(card, options.key.value_or(std::string{}));
}

Outcome<DataJob> startDataJob(Host& host, const Options& options, SecKeyAlgorithm byDefault) {
  const auto algorithm = algorithmOf(options, byDefault);
  if (const auto* failure = std::get_if<Failure>(&algorithm)) return *failure;
  if (const auto trouble = writingTrouble(options.out)) return *trouble;
  auto input = FileInput::open(options.in);
  if (const auto* failure = std::get_if<Failure>(&input)) return *failure;

  auto started = startKeyJob(host, options);
  if (const auto* failure = std::get_if<Failure>(&started)) return *failure;
  auto& job = std::get<KeyJob>(started);
  const auto found = keyOf(job.card, options);
  if (const auto* failure = std::get_if<Failure>(&found)) return *failure;
  return DataJob{std::get<SecKeyAlgorithm>(algorithm), std::move(std::get<std::unique_ptr<FileInput>>(input)),
                 std::move(job), std::get<ChosenKey>(found)};
}

std::string hexOf(const Bytes& bytes) { return hexOf(Text::fromBytes(bytes.view())); }

}  // namespace mirel::cli

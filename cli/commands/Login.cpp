#include <nlohmann/json.hpp>

#include "Commands.h"
#include "KeyJob.h"
#include "Output.h"

namespace mirel::cli {

ExitCode runLogin(Host& host, const Options& options) {
  const auto started = startKeyJob(host, options);
  if (!started) return report(started.failure());
  const auto& job = *started;
  const auto textOfState = [&] {
    const auto state = host.pinState(job.card.reader);
    return state ? state->text : std::string{};
  };
  const std::string before = textOfState();
  if (const auto accepted = job.client->logIn(*job.pins); !accepted) {
    Failure failure = accepted.failure();
    const std::string after = textOfState();
    if (failure.kind == FailureKind::kPinWrong && !after.empty()) failure.why.append(", ").append(after);
    return report(failure);
  }
  if (options.json) {
    const nlohmann::ordered_json json{
        {"reader", job.card.reader.name.toUtf8()}, {"accepted", true}, {"before", before}};
    return writeOutput(jsonLines(json)) ? ExitCode::kSuccess : ExitCode::kFileFailure;
  }
  std::string text = "The card accepts the PIN.\n";
  if (!before.empty()) text.append("Before this: ").append(before).append(".\n");
  return writeOutput(text) ? ExitCode::kSuccess : ExitCode::kFileFailure;
}

}  // namespace mirel::cli

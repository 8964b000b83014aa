#include <nlohmann/json.hpp>

#include "Commands.h"
#include "KeyJob.h"
#include "Output.h"

namespace mirel::cli {

ExitCode runLogin(Host& host, const Options& options) {
  const auto started = startKeyJob(host, options);
  if (const auto* failure = std::get_if<Failure>(&started)) return report(*failure);
  const auto& job = std::get<KeyJob>(started);
  const std::string before = host.pinState(job.card.reader).text;
  if (auto failure = job.client->logIn(*job.pins)) {
    const std::string state = host.pinState(job.card.reader).text;
    if (failure->kind == FailureKind::kPinWrong && !state.empty()) failure->why.append(", ").append(state);
    return report(*failure);
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

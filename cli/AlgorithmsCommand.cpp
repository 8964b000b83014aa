#include <nlohmann/json.hpp>

#include "Commands.h"
#include "KeyJob.h"
#include "Output.h"

namespace mirel::cli {
namespace {

using Json = nlohmann::ordered_json;

std::string shortNameOf(SecKeyAlgorithm algorithm) {
  return std::string{nameOf(algorithm).substr(kSecKeyAlgorithmPrefix.size())};
}

std::string cellFor(SecKeyAlgorithm algorithm, const std::optional<SecKeyAlgorithm>& form) {
  if (!form) return "-";
  return *form == algorithm ? "directly" : "as " + shortNameOf(*form);
}

std::string tableText(KeyClient& client, const std::vector<PublishedKey>& keys) {
  std::vector<std::vector<std::string>> rows{{"ALGORITHM"}};
  for (const PublishedKey& key : keys) {
    rows.front().push_back("KEY " + displayed(key.objectID));
  }
  for (const SecKeyAlgorithmName& known : kSecKeyAlgorithms) {
    std::vector<std::string> row{shortNameOf(known.algorithm)};
    for (const PublishedKey& key : keys)
      row.push_back(cellFor(known.algorithm, client.acceptedForm(key, known.algorithm)));
    rows.push_back(std::move(row));
  }
  return table(rows, outputIsColoured());
}

std::string jsonText(KeyClient& client, const std::vector<PublishedKey>& keys) {
  Json list = Json::array();
  for (const PublishedKey& key : keys) {
    Json accepted = Json::object();
    for (const SecKeyAlgorithmName& known : kSecKeyAlgorithms) {
      const auto form = client.acceptedForm(key, known.algorithm);
      accepted[std::string{known.name}] = form ? Json(nameOf(*form)) : Json{};
    }
    list.push_back(Json{{"objectID", key.objectID.toUtf8()}, {"accepted", accepted}});
  }
  return jsonLines(Json{{"keys", list}});
}

}  // namespace

ExitCode runAlgorithms(Host& host, const Options& options) {
  const auto started = startKeyJob(host, options);
  if (const auto* failure = std::get_if<Failure>(&started)) return report(*failure);
  const auto& job = std::get<KeyJob>(started);
  std::vector<PublishedKey> keys = keysOf(job.card);
  if (options.key) {
    const auto found = chooseKey(job.card, *options.key);
    if (const auto* failure = std::get_if<Failure>(&found)) return report(*failure);
    keys = {std::get<ChosenKey>(found).key};
  }
  if (keys.empty()) {
    return report({FailureKind::kKeyNotFound, "there is no key to ask", "the card publishes no key",
                   "see why with: mireltoken items"});
  }
  const std::string text = options.json ? jsonText(*job.client, keys) : tableText(*job.client, keys);
  return writeOutput(text) ? ExitCode::kSuccess : ExitCode::kFileTrouble;
}

}  // namespace mirel::cli

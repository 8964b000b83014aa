#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <tuple>

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

/// The forms in which a key accepts the algorithms, in the order of kSecKeyAlgorithms.
using Forms = std::vector<std::optional<SecKeyAlgorithm>>;

/// Asks the token once for all keys that are alike in what decides.
class FormsOfKeys {
 public:
  explicit FormsOfKeys(KeyClient& client) : client_{client} {}

  [[nodiscard]] const Forms& of(const PublishedKey& key) {
    Forms& forms =
        known_[{key.keyType, key.keySizeInBits, key.canSign, key.canDecrypt, key.canPerformKeyExchange}];
    if (!forms.empty()) return forms;
    for (const SecKeyAlgorithmName& known : kSecKeyAlgorithms)
      forms.push_back(client_.acceptedForm(key, known.algorithm));
    return forms;
  }

 private:
  KeyClient& client_;
  std::map<std::tuple<CertificateKeyType, int, bool, bool, bool>, Forms> known_;
};

/// The first key of each object ID: the keychain finds no other.
std::vector<PublishedKey> withoutRepetitions(const std::vector<PublishedKey>& keys) {
  std::vector<PublishedKey> first;
  std::set<std::string> seen;
  for (const PublishedKey& key : keys) {
    if (seen.insert(key.objectID.toUtf8()).second) first.push_back(key);
  }
  return first;
}

std::string tableText(KeyClient& client, const std::vector<PublishedKey>& keys) {
  FormsOfKeys forms{client};
  std::vector<std::vector<std::string>> rows{{"ALGORITHM"}};
  for (const SecKeyAlgorithmName& known : kSecKeyAlgorithms) rows.push_back({shortNameOf(known.algorithm)});
  for (const PublishedKey& key : keys) {
    rows.front().push_back("KEY " + displayed(key.objectID));
    const Forms& accepted = forms.of(key);
    for (std::size_t i = 0; i < accepted.size(); ++i)
      rows[i + 1].push_back(cellFor(kSecKeyAlgorithms[i].algorithm, accepted[i]));
  }
  return table(rows, outputIsColoured());
}

std::string jsonText(KeyClient& client, const std::vector<PublishedKey>& keys) {
  FormsOfKeys forms{client};
  Json list = Json::array();
  for (const PublishedKey& key : keys) {
    const Forms& ofKey = forms.of(key);
    Json accepted = Json::object();
    for (std::size_t i = 0; i < ofKey.size(); ++i)
      accepted[std::string{kSecKeyAlgorithms[i].name}] = ofKey[i] ? Json(nameOf(*ofKey[i])) : Json{};
    list.push_back(Json{{"objectID", key.objectID.toUtf8()}, {"accepted", accepted}});
  }
  return jsonLines(Json{{"keys", list}});
}

}  // namespace

ExitCode runAlgorithms(Host& host, const Options& options) {
  const auto started = startKeyJob(host, options);
  if (!started) return report(started.failure());
  const auto& job = *started;
  std::vector<PublishedKey> keys = withoutRepetitions(keysOf(job.card));
  if (options.key) {
    const auto found = chooseKey(job.card, *options.key);
    if (!found) return report(found.failure());
    keys = {found->key};
  }
  if (keys.empty()) {
    return report({FailureKind::kKeyNotFound, "there is no key to ask", "the card publishes no key",
                   "see why with: mireltoken items"});
  }
  const std::string text = options.json ? jsonText(*job.client, keys) : tableText(*job.client, keys);
  return writeOutput(text) ? ExitCode::kSuccess : ExitCode::kFileFailure;
}

}  // namespace mirel::cli

#include <map>
#include <optional>
#include <set>
#include <tuple>

#include "Commands.h"
#include "Json.h"
#include "Output.h"
#include "Session.h"
#include "host/KeyAbility.h"

namespace mirel::cli {
namespace {

std::string shortNameOf(SecKeyAlgorithm algorithm) {
  return std::string{nameOf(algorithm).substr(kSecKeyAlgorithmPrefix.size())};
}

constexpr const char* kAll = "--all";

std::string cellFor(SecKeyAlgorithm algorithm, const std::optional<SecKeyAlgorithm>& form, bool shown) {
  if (!form || !shown) return "-";
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

/// A key, and why nothing works with it; empty: something may.
struct AskedKey {
  PublishedKey key;
  std::string nothing{};
};

/// The first key of each object ID: the keychain finds no other.
std::vector<AskedKey> withoutRepetitions(const std::vector<PublishedKey>& keys) {
  std::vector<AskedKey> first;
  std::set<std::string> seen;
  for (const PublishedKey& key : keys) {
    if (seen.insert(key.objectID.toUtf8()).second) first.push_back({key});
  }
  return first;
}

/// Takes from a report of the card which keys work for nothing.
void judge(std::vector<AskedKey>& keys, const InsertedCard& card, const CardReport& report) {
  const auto published = keysOf(card);  // the report has one for each
  for (AskedKey& asked : keys) {
    for (std::size_t i = 0; i < published.size() && i < report.keys.size(); ++i) {
      const bool isIt = published[i].objectID == asked.key.objectID &&
                        published[i].certificateID == asked.key.certificateID;
      if (!isIt) continue;
      if (report.keys[i].worksForNothing) asked.nothing = report.keys[i].works;
      break;
    }
  }
}

/// `all`: also what the token accepts, but this card layer never does, and what it does not accept at all.
std::string tableText(KeyClient& client, const std::vector<AskedKey>& keys, bool all) {
  FormsOfKeys forms{client};
  std::vector<std::vector<std::string>> rows{{"ALGORITHM"}};
  for (const AskedKey& asked : keys) rows.front().push_back("KEY " + idText(asked.key.objectID));
  for (std::size_t i = 0; i < kSecKeyAlgorithms.size(); ++i) {
    const SecKeyAlgorithm algorithm = kSecKeyAlgorithms[i].algorithm;
    std::vector<std::string> row{shortNameOf(algorithm)};
    bool worksForOne = false;
    for (const AskedKey& asked : keys) {
      const auto& form = forms.of(asked.key)[i];
      const bool works = form && asked.nothing.empty() && mayWork(asked.key, algorithm);
      row.push_back(cellFor(algorithm, form, all || works));
      worksForOne = worksForOne || works;
    }
    if (all || worksForOne) rows.push_back(std::move(row));
  }
  if (rows.size() > 1) return table(rows, outputIsColoured());
  std::string text = "No algorithm works with " + std::string{keys.size() == 1 ? "this key" : "these keys"} +
                     "; see what the token accepts all the same with --all.\n";
  for (const AskedKey& asked : keys) {
    if (!asked.nothing.empty()) text += "Key " + idText(asked.key.objectID) + ": " + asked.nothing + ".\n";
  }
  return text;
}

std::string jsonText(KeyClient& client, const std::vector<AskedKey>& keys) {
  FormsOfKeys forms{client};
  Json list = Json::array();
  for (const auto& [key, nothing] : keys) {
    const Forms& ofKey = forms.of(key);
    Json accepted = Json::object();
    for (std::size_t i = 0; i < ofKey.size(); ++i)
      accepted[std::string{kSecKeyAlgorithms[i].name}] = ofKey[i] ? Json(nameOf(*ofKey[i])) : Json{};
    list.push_back(Json{{"objectID", key.objectID.toUtf8()}, {"accepted", accepted}});
  }
  return jsonLines("algorithms", Json{{"keys", list}});
}

Result<void> run(Session& session) {
  if (auto connected = session.connect(); !connected) return connected;
  std::vector<AskedKey> keys = withoutRepetitions(keysOf(session.card()));
  if (session.options().key) {
    const auto chosen = session.chosenKey();
    if (!chosen) return chosen.failure();
    keys = {{chosen->key}};
  }
  if (keys.empty()) {
    return Failure{FailureKind::kKeyNotFound, "there is no key to ask", "the card publishes no key",
                   "see why with: mireltoken items"};
  }
  const Options& options = session.options();
  // The others tell what the token says.
  if (!options.json && !options.has(kAll)) judge(keys, session.card(), session.examine());
  return writeOutput(options.json ? jsonText(session.client(), keys)
                                  : tableText(session.client(), keys, options.has(kAll)));
}

constexpr CommandOption kOptions[] = {
    {CommandOption::Kind::kOptionalKey, "This key only"},
    {CommandOption::Kind::kFlag, "Show every algorithm, and what the token says to it", kAll},
};

}  // namespace

const Command algorithmsCommand{"algorithms", "Show which algorithms work with the keys", kOptions, run};

}  // namespace mirel::cli

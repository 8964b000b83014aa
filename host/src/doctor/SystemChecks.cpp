#include "doctor/SystemChecks.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <set>
#include <utility>

#include "doctor/SystemTools.h"
#include "host/KeyChoice.h"
#include "platform/CertificateFields.h"
#include "platform/Digest.h"
#include "platform/Hex.h"
#include "platform/Log.h"

namespace mirel {
namespace {

using enum FindingID;

constexpr std::string_view kExtensionID = "com.mirel.token.extension";
constexpr std::string_view kTokenPrefix = "com.mirel.token.extension:";

constexpr Checkpoint kExtension{"extension", Station::kSystem};
constexpr Checkpoint kCards{"cards in the system", Station::kSystem};
constexpr Checkpoint kKeysSeen{"keys in the system", Station::kSystem};
constexpr Checkpoint kDrivers{"other drivers", Station::kSystem};
constexpr Checkpoint kQuarantine{"quarantine", Station::kSystem};
constexpr Checkpoint kSignatures{"code signatures", Station::kSystem};
constexpr Checkpoint kEntitlements{"entitlements", Station::kSystem};
constexpr Checkpoint kNotarisation{"notarisation", Station::kSystem};

/// Without these the extension reaches no card, or no module.
constexpr std::string_view kNeeded[] = {"com.apple.security.app-sandbox", "com.apple.security.smartcard",
                                        "com.apple.security.cs.disable-library-validation"};

std::string countOf(std::size_t number, const char* what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : ", ") + printableLine(text);
  return all;
}

/// The app that an extension lies in; empty where it is in none.
std::string appOf(const std::string& extension) {
  constexpr std::string_view kFolder = "/Contents/PlugIns/";
  const std::size_t end = extension.find(kFolder);
  return end == std::string::npos ? std::string{} : extension.substr(0, end);
}

/// As the system lists the certificate's key; nothing where there is none that can be read.
std::optional<std::string> keyHashOf(const PublishedCertificate* certificate) {
  const auto fields = certificate ? fieldsOfCertificate(certificate->data.view()) : std::nullopt;
  if (!fields) return std::nullopt;
  return hexOfBytes(digestOf(Hash::kSHA1, fields->publicKeyBits), HexDigits::kLower);
}

class SystemExamination {
 public:
  SystemExamination(ProgramRunner& runner, const SystemExpectation& expected, Checks& checks)
      : runner_{runner}, expected_{expected}, checks_{checks}, app_{expected.app} {}

  void examine() {
    lookForExtension();
    lookForCards();
    lookForKeys();
    lookForDrivers();
    lookAtSignatures();
    lookAtEntitlements();
    lookAtNotarisation();
    lookForQuarantine();
  }

 private:
  void add(const Checkpoint& point, std::string evidence, Finding finding) {
    std::vector<Finding> findings;
    findings.push_back(std::move(finding));
    checks_.add(point, std::move(evidence), std::move(findings));
  }
  /// What came of it is not known.
  void addUnknown(const Checkpoint& point, Finding finding) {
    std::string evidence = finding.subject + ": " + finding.evidence;
    add(point, std::move(evidence), std::move(finding));
  }

  [[nodiscard]] ToolAnswer ask(const Checkpoint& point, const std::string& tool,
                               const std::vector<std::string>& arguments) {
    checks_.start(point);
    return askTool(runner_, tool, arguments);
  }

  void lookForExtension() {
    const ToolAnswer answer = ask(kExtension, "pluginkit", {"-mADv", "-p", "com.apple.ctk-tokens"});
    if (answer.unanswered) return addUnknown(kExtension, *answer.unanswered);
    const auto all = extensionsIn(answer.output);
    if (answer.code != 0 || (all.empty() && !firstLineOf(answer.output).empty()))
      return addUnknown(kExtension, uselessAnswer("pluginkit", answer));
    std::vector<ExtensionCopy> copies;
    std::copy_if(all.begin(), all.end(), std::back_inserter(copies),
                 [](const ExtensionCopy& copy) { return copy.id == kExtensionID; });
    if (copies.empty()) {
      const std::string evidence =
          "the system knows " + countOf(all.size(), "token extension") + ", not this one";
      isStarted_ = false;
      return add(kExtension, evidence, {kExtensionNotRegistered, Severity::kFailure, {}, evidence});
    }
    addCopies(copies);
  }

  void addCopies(const std::vector<ExtensionCopy>& copies) {
    const auto isUsed = [](const ExtensionCopy& copy) { return copy.sign != '-' && copy.sign != '='; };
    const auto used = std::find_if(copies.begin(), copies.end(), isUsed);
    if (used == copies.end()) {
      isStarted_ = false;
      const std::string evidence = "it is marked with \"" + std::string{copies.front().sign} + "\"";
      return add(kExtension, evidence, {kExtensionIgnored, Severity::kFailure, {}, evidence});
    }
    extensionPath_ = used->path;
    const std::string usedApp = appOf(used->path);
    if (app_.empty()) app_ = usedApp;
    std::set<std::string> paths;
    for (const ExtensionCopy& copy : copies) paths.insert(copy.path);
    const std::string evidence = used->path.empty() ? "it is registered" : printableLine(used->path);
    const bool isOther = !expected_.app.empty() && !usedApp.empty() && usedApp != expected_.app;
    if (paths.size() < 2 && !isOther) return checks_.add(kExtension, evidence);
    if (isOther) paths.insert(expected_.app + "/");
    paths.erase(used->path);
    add(kExtension, evidence,
        {kExtensionCopies,
         Severity::kWarning,
         {},
         "the system uses " + evidence + ", and there is " + joined({paths.begin(), paths.end()})});
  }

  void lookForCards() {
    if (numCards_ == 0) return checks_.skip(kCards, "there is no card");
    const ToolAnswer answer = ask(kCards, "security", {"list-smartcards"});
    if (answer.unanswered) return addUnknown(kCards, *answer.unanswered);
    tokens_ = tokenIDsIn(answer.output);
    checks_.setSystemTokens(tokens_);
    if (tokens_.empty() && answer.code != 0) return addUnknown(kCards, uselessAnswer("security", answer));
    const auto own = static_cast<std::size_t>(std::count_if(
        tokens_.begin(), tokens_.end(), [](const std::string& id) { return id.starts_with(kTokenPrefix); }));
    const std::string evidence = tokens_.empty() ? "the system lists none" : joined(tokens_);
    numLacking_ = numCards_ - std::min(own, numCards_);
    if (numLacking_ == 0) return checks_.add(kCards, evidence);
    // Why an extension that is not started has no card was said.
    if (!isStarted_) return checks_.add(kCards, Severity::kFailure, evidence);
    add(kCards, evidence,
        {kCardNotInSystem,
         own == 0 ? Severity::kFailure : Severity::kWarning,
         {},
         "the module shows " + countOf(numCards_, "card") + ", the system " + std::to_string(own)});
  }

  void lookForKeys() {
    if (expected_.keyHashes.empty()) return checks_.skip(kKeysSeen, "no key is published");
    const ToolAnswer answer = ask(kKeysSeen, "sc_auth", {"identities"});
    if (answer.unanswered) return addUnknown(kKeysSeen, *answer.unanswered);
    listed_ = keyHashesIn(answer.output);
    if (listed_.empty() && answer.code != 0) return addUnknown(kKeysSeen, uselessAnswer("sc_auth", answer));
    std::vector<std::string> missing;
    std::copy_if(expected_.keyHashes.begin(), expected_.keyHashes.end(), std::back_inserter(missing),
                 [this](const std::string& hash) { return !isListed(hash); });
    const std::string evidence = std::to_string(expected_.keyHashes.size() - missing.size()) + " of " +
                                 countOf(expected_.keyHashes.size(), "key") + " listed as identities";
    if (missing.empty()) return checks_.add(kKeysSeen, evidence);
    const auto excused = keysOfLackingCards();  // why these are missing was said
    std::erase_if(missing, [&](const std::string& hash) { return excused.contains(hash); });
    if (missing.empty()) return checks_.add(kKeysSeen, Severity::kWarning, evidence);
    add(kKeysSeen, evidence, {kKeyNotInSystem, Severity::kWarning, {}, "public-key hash " + joined(missing)});
  }

  [[nodiscard]] bool isListed(const std::string& hash) const {
    return std::find(listed_.begin(), listed_.end(), hash) != listed_.end();
  }

  /// The keys of cards of which none is listed, where these may all be cards that the system does not show.
  [[nodiscard]] std::set<std::string> keysOfLackingCards() const {
    std::size_t numUnlisted = 0;
    std::set<std::string> keys;
    for (const auto& [instanceID, hashes] : expected_.cards) {
      const bool isUnlisted = std::none_of(hashes.begin(), hashes.end(),
                                           [this](const std::string& hash) { return isListed(hash); });
      if (hashes.empty() || !isUnlisted) continue;
      ++numUnlisted;
      keys.insert(hashes.begin(), hashes.end());
    }
    return numUnlisted > numLacking_ ? std::set<std::string>{} : keys;
  }

  /// Another driver at the same card shows as its token beside ours, and as a key that is listed twice,
  /// unless our card has several certificates for it.
  void lookForDrivers() {
    if (tokens_.empty()) return checks_.skip(kDrivers, "no token is listed");
    std::vector<std::string> others;
    std::copy_if(tokens_.begin(), tokens_.end(), std::back_inserter(others),
                 [](const std::string& id) { return !id.starts_with(kTokenPrefix); });
    if (others.empty()) return checks_.add(kDrivers, "none has a token");
    const std::string evidence = joined(others);
    for (const std::string& hash : listed_) {
      const auto& own = expected_.certificateHashes;
      const auto expected = std::max<std::ptrdiff_t>(std::count(own.begin(), own.end(), hash), 1);
      if (std::count(listed_.begin(), listed_.end(), hash) <= expected) continue;
      return add(
          kDrivers, evidence,
          {kOtherDriverOnCard, Severity::kWarning, evidence, "both publish the key with the hash " + hash});
    }
    if (tokens_.size() <= numCards_) return checks_.add(kDrivers, evidence);
    add(kDrivers, evidence,
        {kOtherDriverOnCard, Severity::kUnknown, evidence,
         countOf(tokens_.size(), "token") + " for " + countOf(numCards_, "card")});
  }

  void lookForQuarantine() {
    std::vector<Finding> findings;
    std::vector<std::string> clean;
    for (const auto& [what, path] : files()) {
      const ToolAnswer answer = ask(kQuarantine, "xattr", {path});
      if (answer.unanswered) return addUnknown(kQuarantine, *answer.unanswered);
      const bool isGoodDownload = what == kAppName && isAccepted_;  // may keep its mark
      if (answer.code != 0) {
        findings.push_back(uselessAnswer("xattr", answer));
      } else if (!isGoodDownload && answer.output.find("com.apple.quarantine") != std::string::npos) {
        findings.push_back({kQuarantined, Severity::kWarning, what, printableLine(path)});
      } else {
        clean.push_back(what);
      }
    }
    addFiles(kQuarantine, clean, " not held back", std::move(findings));
  }

  void lookAtSignatures() {
    std::vector<Finding> findings;
    std::vector<std::string> good;
    for (const auto& [what, path] : files()) {
      const ToolAnswer answer = ask(kSignatures, "codesign", {"-vvv", "--deep", "--strict", path});
      if (answer.unanswered) return addUnknown(kSignatures, *answer.unanswered);
      if (answer.code == 0) {
        good.push_back(what);
      } else if (answer.code != 1) {  // no answer to the question
        findings.push_back(uselessAnswer("codesign", answer));
      } else {
        const Severity severity = what == kAppName ? Severity::kFailure : Severity::kWarning;
        findings.push_back({kSignatureInvalid, severity, what, firstLineOf(answer.output)});
      }
    }
    addFiles(kSignatures, good, " with a valid one", std::move(findings));
  }

  void addFiles(const Checkpoint& point, const std::vector<std::string>& good, const char* why,
                std::vector<Finding> findings) {
    if (good.empty() && findings.empty()) return checks_.skip(point, "there is no file to look at");
    std::string evidence =
        good.empty() ? findings.front().subject + ": " + findings.front().evidence : joined(good) + why;
    checks_.add(point, std::move(evidence), std::move(findings));
  }

  void lookAtEntitlements() {
    if (extensionPath_.empty())
      return checks_.skip(kEntitlements, "it is not known where the extension lies");
    const ToolAnswer answer =
        ask(kEntitlements, "codesign", {"-d", "--entitlements", "-", "--xml", extensionPath_});
    if (answer.unanswered) return addUnknown(kEntitlements, *answer.unanswered);
    if (answer.code != 0) return addUnknown(kEntitlements, uselessAnswer("codesign", answer));
    std::vector<std::string> missing;
    for (const std::string_view name : kNeeded) {
      if (!isEntitled(answer.output, name)) missing.emplace_back(name);
    }
    if (missing.empty()) return checks_.add(kEntitlements, "the extension has those that it needs");
    add(kEntitlements, "missing: " + joined(missing),
        {kEntitlementMissing, Severity::kFailure, "extension", joined(missing)});
  }

  void lookAtNotarisation() {
    if (app_.empty()) return checks_.skip(kNotarisation, "it is not known where the app lies");
    const ToolAnswer answer = ask(kNotarisation, "spctl", {"-a", "-vv", app_});
    if (answer.unanswered) return addUnknown(kNotarisation, *answer.unanswered);
    const std::string evidence = firstLineOf(answer.output);
    isAccepted_ = answer.code == 0;
    if (isAccepted_) return checks_.add(kNotarisation, evidence.empty() ? "accepted" : evidence);
    constexpr int kRejected = 3;  // other codes say that it was not looked at
    if (answer.code != kRejected) return addUnknown(kNotarisation, uselessAnswer("spctl", answer));
    add(kNotarisation, evidence.empty() ? "rejected" : evidence,
        {kNotNotarised, Severity::kWarning, kAppName, evidence});
  }

  /// What the system must let run, by name and path.
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> files() const {
    std::vector<std::pair<std::string, std::string>> files;
    if (!app_.empty()) files.emplace_back(kAppName, app_);
    if (!expected_.module.empty()) files.emplace_back("module", expected_.module);
    return files;
  }

  static constexpr const char* kAppName = "app";

  ProgramRunner& runner_;
  const SystemExpectation& expected_;
  const std::size_t numCards_ = expected_.cards.size();
  Checks& checks_;
  std::string app_;
  std::string extensionPath_;
  bool isStarted_ = true;            ///< the extension, as far as is known
  std::size_t numLacking_ = 0;       ///< cards that the module shows, and the system does not
  bool isAccepted_ = false;          ///< the app, by the system's rules on where programs come from
  std::vector<std::string> tokens_;  ///< that the system lists
  std::vector<std::string> listed_;  ///< the hashes of keys that it lists
};

}  // namespace

void expect(SystemExpectation& expectation, const InsertedCard& card) {
  auto& ofCard = expectation.cards[std::u16string{card.instanceID.units()}];
  for (const PublishedItem& item : card.items) {
    if (const auto* certificate = std::get_if<PublishedCertificate>(&item)) {
      if (auto hash = keyHashOf(certificate)) expectation.certificateHashes.push_back(*std::move(hash));
      continue;
    }
    auto hash = keyHashOf(certificateOf(card, std::get<PublishedKey>(item)));
    auto& known = expectation.keyHashes;
    if (hash) ofCard.insert(*hash);
    if (hash && std::find(known.begin(), known.end(), *hash) == known.end())
      known.push_back(*std::move(hash));
  }
}

void checkSystem(ProgramRunner& runner, const SystemExpectation& expected, Checks& checks) {
  SystemExamination{runner, expected, checks}.examine();
}

}  // namespace mirel

#include "doctor/ModuleChecks.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "FailureDiary.h"
#include "ModuleFacts.h"
#include "ReaderFinder.h"
#include "ReaderFindings.h"
#include "bridge/P11Bridge.h"
#include "host/Display.h"
#include "host/ModuleFile.h"
#include "platform/Log.h"

namespace mirel {
namespace {

using enum FindingID;

constexpr Checkpoint kFile{"module file", Station::kModule};
constexpr Checkpoint kSystem{"module's system", Station::kModule};
constexpr Checkpoint kOwner{"module's owner", Station::kModule};
constexpr Checkpoint kLoading{"module loads", Station::kModule};
constexpr Checkpoint kVersion{"PKCS #11 version", Station::kModule};
constexpr Checkpoint kStart{"module starts", Station::kModule};
constexpr Checkpoint kSlots{"slots", Station::kModule};

Finding failure(FindingID id, const std::string& evidence) {
  return {id, Severity::kFailure, {}, printableLine(evidence)};
}

/// Goes from step to step as long as all is well; skips the others.
class ModuleExamination {
 public:
  ModuleExamination(PlatformServices& services, const ModuleChoice& choice, Checks& checks)
      : services_{services}, choice_{choice}, checks_{checks} {}

  [[nodiscard]] std::optional<std::vector<Reader>> slots(std::string& outReason) {
    step(kFile, [&] { return lookAtFile(); });
    step(kSystem, [&] { return lookAtSystem(); });
    step(kOwner, [&] { return lookAtOwner(); });
    step(kLoading, [&] { return load(); });
    step(kVersion, [&] { return version(); });
    step(kStart, [&] { return start(); });
    step(kSlots, [&] { return list(); });
    outReason = reason_;
    return std::move(slots_);
  }

 private:
  /// What a step has come to: its evidence, or what was found.
  struct Outcome {
    std::string evidence;
    std::vector<Finding> findings{};
    Severity severity = Severity::kOk;  ///< where nothing was found
  };

  template <typename Body>
  void step(const Checkpoint& point, const Body& body) {
    if (!reason_.empty()) return checks_.skip(point, reason_);
    checks_.start(point);
    Outcome outcome = body();
    if (worstOf(outcome.findings) == Severity::kFailure) {
      reason_ = std::string{entryOf(outcome.findings.front().id).title};
      if (outcome.evidence.empty()) outcome.evidence = outcome.findings.front().evidence;
    }
    if (outcome.findings.empty()) return checks_.add(point, outcome.severity, std::move(outcome.evidence));
    checks_.add(point, std::move(outcome.evidence), std::move(outcome.findings));
  }

  [[nodiscard]] Outcome lookAtFile() {
    facts_ = factsOfModule(services_, choice_);
    if (!facts_) {
      return {"there is no home folder to look in",
              {failure(kModuleMissing, "the user database has no home folder for this user")}};
    }
    checks_.setModule({facts_->path, facts_->target});
    const std::string name = printableLine(facts_->name);
    if (facts_->path.empty())
      return {{}, {failure(kModuleMissing, name + ": " + std::strerror(facts_->error))}};
    const bool isPart = !facts_->target.empty();
    if (!facts_->noFile.empty())
      return {{}, {failure(isPart ? kModuleNotLoadable : kModuleWithoutEntry, name + ": " + facts_->noFile)}};
    const std::string path = printableLine(facts_->path);
    return {path == name ? name : name + ", which is " + path};
  }

  [[nodiscard]] Outcome lookAtSystem() const {
    if (facts_->otherTarget) return {{}, {failure(kModuleForOtherSystem, facts_->otherTarget->why)}};
    if (facts_->target.empty()) return {"the file does not tell", {}, Severity::kUnknown};
    return {"for " + facts_->target};
  }

  [[nodiscard]] Outcome lookAtOwner() const {
    if (!facts_->exposure) return {"nobody else can change the file or a folder above it"};
    Finding found = failure(kModuleChangeableByOthers, *facts_->exposure);
    if (choice_.trusted) found.severity = Severity::kWarning;
    const std::string evidence = found.evidence;
    return {evidence, {std::move(found)}};
  }

  [[nodiscard]] Outcome load() {
    if (const auto chosen = chooseModule(services_, choice_); !chosen)
      return {{}, {failure(kModuleNotLoadable, chosen.failure().why)}};
    diary_ = std::make_shared<FailureDiary>(services_.observer);
    PlatformServices own = services_;
    own.loader = loaderWithDiary(own.loader, diary_);
    own.observer = diary_;
    bridge_ = std::make_unique<P11Bridge>(own);
    const auto loaded = loadModule(*bridge_, *diary_, facts_->name);
    if (loaded) return {"the system's loader takes it"};
    const bool isOpen = bridge_->phP11Module() != nullptr;
    return {{}, {failure(isOpen ? kModuleWithoutEntry : kModuleNotLoadable, loaded.failure().why)}};
  }

  [[nodiscard]] Outcome version() const {
    const CK_VERSION version = bridge_->listVersion();
    const std::string minor = std::to_string(version.minor);
    return {std::to_string(version.major) + "." + (minor.size() < 2 ? "0" + minor : minor)};
  }

  [[nodiscard]] Outcome start() const {
    CK_RV answer = CKR_OK;
    const auto started = startModule(*bridge_, facts_->name, answer);
    if (started) return {"C_Initialize without parameters"};
    return {{},
            {failure(answer == CKR_ARGUMENTS_BAD ? kModuleWantsParameters : kModuleDoesNotStart,
                     started.failure().why)}};
  }

  [[nodiscard]] Outcome list() {
    auto listed = listReaders(*bridge_, false);
    if (!listed) return {{}, {failure(kModuleListsNoSlots, listed.failure().why)}};
    slots_ = *std::move(listed);
    const auto numTokens =
        std::count_if(slots_->begin(), slots_->end(), [](const Reader& slot) { return slot.hasToken; });
    checks_.setSlots(*slots_);
    return {std::to_string(slots_->size()) + ", of which " + std::to_string(numTokens) + " with a card"};
  }

  PlatformServices& services_;
  const ModuleChoice& choice_;
  Checks& checks_;
  std::string reason_;
  std::optional<ModuleFacts> facts_;
  std::shared_ptr<FailureDiary> diary_;
  std::unique_ptr<P11Bridge> bridge_;
  std::optional<std::vector<Reader>> slots_;
};

std::string textOf(const ServiceReader& reader) {
  using enum ServiceReader::Card;
  const Text name =
      Text::fromBytes({reinterpret_cast<const std::uint8_t*>(reader.name.data()), reader.name.size()});
  std::string text{"\""};
  text.append(displayed(name)).append("\" ");
  switch (reader.card) {
    case kNone: return text + "empty";
    case kMute: return text + "with a mute card";
    case kUnknown: return text + "not known";
    case kPresent: break;
  }
  text += "with a card";
  if (!reader.atr.empty()) text.append(", ATR ").append(reader.atr);
  return reader.exclusive ? text + ", in exclusive use" : text;
}

std::string textOf(const std::vector<ServiceReader>& readers) {
  std::string text = std::to_string(readers.size()) + (readers.size() == 1 ? " reader" : " readers");
  for (const ServiceReader& reader : readers)
    text.append(&reader == &readers.front() ? ": " : "; ").append(textOf(reader));
  return text;
}

std::string namesOf(const std::vector<Reader>& slots) {
  std::string text;
  for (const Reader& slot : slots) {
    if (slot.hasToken) text += (text.empty() ? "\"" : ", \"") + displayed(slot.name) + "\"";
  }
  return text.empty() ? "the module shows no card" : "with a card: " + text;
}

}  // namespace

std::optional<std::vector<Reader>> checkModule(PlatformServices& services, const ModuleChoice& choice,
                                               Checks& checks, std::string& outReason) {
  return ModuleExamination{services, choice, checks}.slots(outReason);
}

CardServiceView checkReaders(const PlatformServices& services,
                             const std::optional<std::vector<Reader>>& slots, Checks& checks) {
  constexpr Checkpoint kService{"card service", Station::kReaders};
  constexpr Checkpoint kReaders{"readers", Station::kReaders};
  checks.start(kService);
  CardServiceView view = viewOf(services.cardService);
  std::vector<Finding> findings = slots ? readerFindings(*slots, view) : std::vector<Finding>{};
  const auto ofService = std::stable_partition(findings.begin(), findings.end(), [](const Finding& finding) {
    return finding.id == kCardServiceSilent;
  });
  std::vector<Finding> silent{std::make_move_iterator(findings.begin()), std::make_move_iterator(ofService)};
  findings.erase(findings.begin(), ofService);

  const bool isMissed = !silent.empty();
  if (view.state == CardServiceView::State::kAnswers) {
    checks.add(kService, textOf(view.readers));
  } else if (isMissed) {
    checks.add(kService, printableLine(view.evidence), std::move(silent));
  } else {
    checks.skip(kService, view.evidence.empty() ? "it cannot be asked here" : printableLine(view.evidence));
  }
  if (slots && isMissed && findings.empty()) {
    checks.skip(kReaders, std::string{entryOf(kCardServiceSilent).title});
  } else if (slots) {
    checks.add(kReaders, namesOf(*slots), std::move(findings));
  }
  return view;
}

}  // namespace mirel

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Json.h"
#include "Output.h"
#include "Recordings.h"
#include "Worker.h"
#include "host/Home.h"
#include "platform/Log.h"
#include "platform/PlatformServices.h"
#include "platform/UserDirectory.h"
#include "recording/CallText.h"
#include "recording/Replayer.h"

namespace mirel::cli {
namespace {

using recording::Record;
using recording::RecordedModule;
using recording::Recording;

constexpr const char* kNoHome = "/nonexistent";

/// `place`: where the card layer looks for the module in this run.
std::optional<ModuleFacts> factsOf(const RecordedModule& module, std::string place) {
  if (module.name.empty()) return std::nullopt;
  ModuleFacts facts{std::move(place), module.name,     module.path,   module.error,
                    module.noFile,    module.exposure, module.target, std::nullopt};
  if (module.otherTarget) {
    facts.otherTarget = Failure{FailureKind::kModuleNotLoadable, "the module is for another system",
                                *module.otherTarget, "get the module for this system from its maker"};
  }
  return facts;
}

bool has(const std::vector<std::string>& words, std::string_view word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

}  // namespace

Result<std::function<void()>> replay(Options& ioOptions, PlatformServices& services, ModuleChoice& choice) {
  auto loaded = loadRecording(*ioOptions.replay);
  if (!loaded) return loaded.failure();
  Recording& recorded = loaded->recording;
  const std::vector<std::string> words = recorded.header.command;
  const auto first = std::find_if(recorded.records.begin(), recorded.records.end(), [](const Record& record) {
    return std::holds_alternative<RecordedModule>(record);
  });
  const std::string name = first == recorded.records.end() ? "" : std::get<RecordedModule>(*first).name;

  ioOptions.trustModule = has(words, "--trust-module");
  if (has(words, "--module") && !name.empty()) {
    ioOptions.modulePath = name;
  } else if (const std::string tail = moduleInHome(""); name.ends_with(tail)) {
    services.user = userWithHome(services.user, name.substr(0, name.size() - tail.size()));
  }
  if (services.user->homeOf(services.user->loginName()).empty())
    services.user = userWithHome(services.user, kNoHome);

  const bool json = ioOptions.json;
  const auto onMissing = [json, words](const std::string& what) {
    const Failure failure{
        FailureKind::kNotRecorded, "the recording does not go on like this",
        printableLine(what) + "; it was made with: " + printableLine(joinedWith(" ", words)),
        "give the command and the options that were recorded"};
    endWorker(report(failure, json));
  };
  const auto onEnd = [json](const recording::RecordedEnd& end) {
    if (end.how.kind != recording::BadEnd::Kind::kInterrupted) endWorkerAs(end.how);
    const Failure failure{FailureKind::kNotRecorded, "the recording ends here",
                          printableLine(recording::endText(end)), "record again, and wait for the end"};
    endWorker(report(failure, json));
  };
  auto replay = recording::replayInto(std::move(recorded), onMissing, onEnd, services);
  choice.onFacts = [module = std::move(replay.module)](
                       const std::optional<ModuleFacts>& found) -> std::optional<ModuleFacts> {
    const auto next = module();
    return next ? factsOf(*next, found ? found->place : moduleInHome(kNoHome)) : std::nullopt;
  };
  return std::move(replay.workIsDone);
}

}  // namespace mirel::cli

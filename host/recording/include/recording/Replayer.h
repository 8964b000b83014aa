#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/PlatformServices.h"
#include "recording/RecordedCall.h"

namespace mirel::recording {

/// What a replay answers and is told beside the services.
struct Replay {
  /// What was found of the module's file, one look after the other; nothing when it was not looked at once
  /// more.
  std::function<std::optional<RecordedModule>()> module;
  /// To be called when the command has done its work: `onEnd` is told where the recorded process came to a
  /// bad end only then.
  std::function<void()> workIsDone;
};

/// Puts a recording in place of the module, the loader, the clock, chance and the card service. All answer in
/// the order in which they did; no call takes time. A PIN is not looked at, and what was hidden when it was
/// recorded is as many letters "Z". The text of a trial is such letters too, so that it comes back as it was.
///
/// `onMissing`: told, in words, of something that was not recorded, or not there. `onEnd`: told when the
/// replay has come to where the recorded process ended: at the call that did not return, or, where there was
/// none, at what is asked next. Both may end the program; when they return, the answer is a failure.
[[nodiscard]] Replay replayInto(Recording recording, std::function<void(const std::string& what)> onMissing,
                                std::function<void(const RecordedEnd& end)> onEnd,
                                PlatformServices& services);

}  // namespace mirel::recording

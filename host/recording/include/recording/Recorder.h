#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "platform/PlatformServices.h"
#include "recording/RecordedCall.h"

namespace mirel::recording {

/// Gets what happens, one record after the other, while it happens. It is told from all threads, but never
/// from two at once, and from within a call of the module: it must not call the module.
class RecordSink {
 public:
  RecordSink() = default;
  RecordSink(const RecordSink&) = delete;
  RecordSink& operator=(const RecordSink&) = delete;
  virtual ~RecordSink() = default;

  virtual void note(const Record& record) noexcept = 0;

  /// Before each call of the module, which may never come back: `call` is without an answer.
  virtual void callStarts(const RecordedCall& call) noexcept { (void)call; }
};

/// Whoever looks at the module's file tells it here. See ModuleChoice in host/ModuleFile.h.
using ModuleNotes = std::function<void(const RecordedModule&)>;

/// Puts a recorder between `services` and the module, the clock, chance and the card service, and has it tell
/// the sinks. The module's function list is replaced by one of ours, which hands each call on. To be done
/// last, so that what stands in front of the module is recorded too. One for each process.
[[nodiscard]] ModuleNotes recordInto(std::vector<std::shared_ptr<RecordSink>> sinks,
                                     PlatformServices& services);

}  // namespace mirel::recording

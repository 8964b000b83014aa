#include "recording/Replayer.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>
#include <queue>
#include <string_view>
#include <utility>

#include "CallAnswer.h"
#include "ReplayingFront.h"
#include "platform/CardService.h"
#include "platform/DynamicLoader.h"
#include "platform/TimeAndChance.h"

namespace mirel::recording {
namespace {

constexpr const char* kEntryPoint = "C_GetFunctionList";
constexpr const char* kLibrary = "library";

/// What the loader said of its last failure in this thread.
thread_local std::string loaderErrorOfThread;

/// The records that are no calls, each kind in its order.
class Memories {
 public:
  Memories(std::vector<Record> records, std::function<void(const std::string&)> onMissing,
           std::function<void(const RecordedEnd&)> onEnd)
      : onMissing_{std::move(onMissing)}, onEnd_{std::move(onEnd)} {
    for (Record& record : records) std::visit([this](auto& one) { keep(std::move(one)); }, record);
  }

  [[nodiscard]] std::vector<RecordedCall> takeCalls() { return std::move(calls_); }

  /// Who knows whether all the calls have answered.
  void knowWhen(std::function<bool()> callsAreUsedUp) { callsAreUsedUp_ = std::move(callsAreUsedUp); }

  [[nodiscard]] const std::optional<RecordedEnd>& end() const noexcept { return end_; }
  void reachEnd() const { onEnd_(*end_); }

  /// All calls have answered, and nothing more is asked. Who was interrupted then got all there was.
  void endWork() const {
    if (isEndBetweenCalls() && end_->how.kind != BadEnd::Kind::kInterrupted) reachEnd();
  }

  [[nodiscard]] std::optional<RecordedLoading> loading(std::string_view subject) {
    auto next = taken(loadings_);
    if (next && next->subject == subject) return next;
    if (!next && end_ && end_->whileLoading && subject == kLibrary) {
      reachEnd();
    } else {
      lacks(!next, "the loading of " + std::string{subject} + " was not recorded here");
    }
    return std::nullopt;
  }
  [[nodiscard]] std::optional<RecordedModule> module() {
    auto next = taken(modules_);
    if (!next) lacks(true, "the recording does not tell what the module's file was");
    return next;
  }
  [[nodiscard]] std::int64_t time(RecordedTime::Clock clock) {
    const auto next = taken(clock == RecordedTime::Clock::kDate ? dates_ : clocks_);
    if (!next) lacks(true, "the time was not asked here when it was recorded");
    return next ? next->time : 0;
  }
  [[nodiscard]] bool salt(std::span<std::uint8_t> out) {
    const auto next = taken(salts_);
    const bool fits = next && next->bytes.size() == out.size();
    if (!fits) lacks(!next, "no such salt was drawn here when it was recorded");
    if (fits) std::copy(next->bytes.begin(), next->bytes.end(), out.begin());
    return fits;
  }
  [[nodiscard]] CardServiceView view() {
    const auto next = taken(views_);
    if (!next) lacks(true, "the card service was not asked here when it was recorded");
    return next ? next->view : CardServiceView{};
  }

 private:
  void keep(RecordedCall call) { calls_.push_back(std::move(call)); }
  void keep(RecordedLoading loading) { loadings_.push(std::move(loading)); }
  void keep(RecordedModule module) { modules_.push(std::move(module)); }
  void keep(RecordedSalt salt) { salts_.push(std::move(salt)); }
  void keep(RecordedTime time) { (time.clock == RecordedTime::Clock::kDate ? dates_ : clocks_).push(time); }
  void keep(RecordedView view) { views_.push(std::move(view)); }
  void keep(RecordedEnd end) { end_ = std::move(end); }

  /// `areUsedUp`: all records of its kind.
  void lacks(bool areUsedUp, const std::string& what) const {
    areUsedUp&& isEndBetweenCalls() && (!callsAreUsedUp_ || callsAreUsedUp_()) ? reachEnd()
                                                                               : onMissing_(what);
  }
  [[nodiscard]] bool isEndBetweenCalls() const { return end_ && !end_->call && !end_->whileLoading; }

  template <typename T>
  std::optional<T> taken(std::queue<T>& queue) {
    const std::lock_guard lock{mutex_};
    if (queue.empty()) return std::nullopt;
    std::optional<T> next{std::move(queue.front())};
    queue.pop();
    return next;
  }

  std::function<void(const std::string&)> onMissing_;
  std::function<void(const RecordedEnd&)> onEnd_;
  std::function<bool()> callsAreUsedUp_;
  std::optional<RecordedEnd> end_;
  std::mutex mutex_;
  std::vector<RecordedCall> calls_;
  std::queue<RecordedLoading> loadings_;
  std::queue<RecordedModule> modules_;
  std::queue<RecordedSalt> salts_;
  std::queue<RecordedTime> dates_;
  std::queue<RecordedTime> clocks_;
  std::queue<RecordedView> views_;
};

/// Opens the recording whatever it is asked for.
class ReplayingLoader final : public DynamicLoader {
 public:
  ReplayingLoader(std::shared_ptr<Memories> memories, std::function<void(const std::string&)> onMissing)
      : memories_{std::move(memories)},
        front_{memories_->takeCalls(), ReplayingFront::Order::kExact, std::move(onMissing)} {
    const auto& end = memories_->end();
    if (end && !end->whileLoading) front_.endIn(end->call, [this] { memories_->reachEnd(); });
  }

  void* open(const char*) noexcept override { return succeeds(kLibrary) ? this : nullptr; }
  void* symbol(void*, const char* name) noexcept override {
    if (!succeeds(name) || std::string_view{name} != kEntryPoint) return nullptr;
    return reinterpret_cast<void*>(front_.entryPoint());
  }
  bool close(void*) noexcept override { return true; }
  [[nodiscard]] bool isUsedUp() { return front_.isUsedUp(); }
  std::string errorText() noexcept override { return std::exchange(loaderErrorOfThread, {}); }

 private:
  bool succeeds(const char* subject) {
    const auto loading = memories_->loading(subject);
    if (loading && loading->error) loaderErrorOfThread = *loading->error;
    return loading && !loading->error;
  }

  std::shared_ptr<Memories> memories_;
  ReplayingFront front_;
};

class ReplayingChance final : public TimeAndChance {
 public:
  explicit ReplayingChance(std::shared_ptr<Memories> memories) : memories_{std::move(memories)} {}

  std::chrono::system_clock::time_point date() noexcept override {
    return std::chrono::system_clock::time_point{
        std::chrono::seconds{memories_->time(RecordedTime::Clock::kDate)}};
  }
  std::chrono::steady_clock::time_point clock() noexcept override {
    return std::chrono::steady_clock::time_point{
        std::chrono::microseconds{memories_->time(RecordedTime::Clock::kSteady)}};
  }
  bool drawSalt(std::span<std::uint8_t> out) noexcept override { return memories_->salt(out); }
  bool drawTrialText(std::span<std::uint8_t> out) noexcept override {
    std::fill(out.begin(), out.end(), kFillByte);
    return true;
  }

 private:
  std::shared_ptr<Memories> memories_;
};

class ReplayingCardService final : public CardService {
 public:
  explicit ReplayingCardService(std::shared_ptr<Memories> memories) : memories_{std::move(memories)} {}
  CardServiceView look() noexcept override { return memories_->view(); }
  std::unique_ptr<CardServiceWatch> watch() noexcept override { return nullptr; }  // no card leaves

 private:
  std::shared_ptr<Memories> memories_;
};

}  // namespace

Replay replayInto(Recording recording, std::function<void(const std::string&)> onMissing,
                  std::function<void(const RecordedEnd& end)> onEnd, PlatformServices& services) {
  const auto memories = std::make_shared<Memories>(std::move(recording.records), onMissing, std::move(onEnd));
  const auto loader = std::make_shared<ReplayingLoader>(memories, std::move(onMissing));
  memories->knowWhen([known = std::weak_ptr{loader}] {
    const auto still = known.lock();
    return !still || still->isUsedUp();
  });
  services.loader = loader;
  services.timeAndChance = std::make_shared<ReplayingChance>(memories);
  services.cardService = std::make_shared<ReplayingCardService>(memories);
  return {[memories] { return memories->module(); },
          [memories, loader] {
            if (loader->isUsedUp()) memories->endWork();
          }};
}

}  // namespace mirel::recording

#include "CardAlarm.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "host/ReaderWatch.h"

namespace mirel::cli {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kOneWait{60000};
// For calls of the card service to come back; threads that it keeps are left alone.
constexpr milliseconds kTimeForEnd{500};
constexpr milliseconds kBetweenCancels{5};

/// A thread without signals, which are for the one that has the terminal. False where there can be none.
template <typename Work>
bool startThread(Work work) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  (void)pthread_sigmask(SIG_SETMASK, &all, &before);
  bool started = true;
  try {
    std::thread{std::move(work)}.detach();
  } catch (const std::exception&) {
    started = false;
  }
  (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return started;
}

}  // namespace

struct CardAlarm::State {
  State() = default;
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State() {
    for (const int end : ends) {
      if (end >= 0) (void)close(end);
    }
  }

  void follow() {
    ReaderWatch events;
    while (!isOver) {
      const CardServiceView view = watch->next(kOneWait);
      if (isOver) break;
      std::vector<WatchedReader> readers = watchedReaders(view);
      std::erase_if(readers, [&](const WatchedReader& one) { return !(one.name == reader); });
      // A slot has so many bytes of a reader's name that two can have the same.
      if (readers.size() > 1) continue;
      const auto happened = events.take(readers);
      const bool went = std::any_of(happened.begin(), happened.end(), [](const ReaderEvent& event) {
        return event.kind == ReaderEvent::Kind::kRemoval;
      });
      const bool isOut = !readers.empty() && readers.front().card == WatchedReader::Card::kNone;
      if (went || isOut) {
        (void)!write(ends[1], "", 1);
        break;
      }
    }
    const std::lock_guard lock{mutex};
    hasEnded = true;
    ended.notify_all();
  }

  /// Ends `follow`. Cancelled are calls of the card service, by one that may not come back itself.
  void cancel() {
    std::unique_lock lock{mutex};
    while (!hasEnded) {
      lock.unlock();
      watch->cancel();
      lock.lock();
      (void)ended.wait_for(lock, kBetweenCancels, [this] { return hasEnded; });
    }
  }

  std::unique_ptr<CardServiceWatch> watch;
  Text reader;
  std::array<int, 2> ends{-1, -1};
  std::atomic<bool> isOver{false};
  std::mutex mutex;
  std::condition_variable ended;
  bool hasEnded = false;
};

CardAlarm::CardAlarm(const std::shared_ptr<CardService>& service, const Text& reader) {
  auto state = std::make_shared<State>();
  state->watch = service ? service->watch() : nullptr;
  state->reader = reader;
  if (!state->watch || pipe(state->ends.data()) != 0) return;
  for (const int end : state->ends) (void)fcntl(end, F_SETFD, FD_CLOEXEC);
  if (startThread([state] { state->follow(); })) state_ = std::move(state);
}

CardAlarm::~CardAlarm() {
  if (!state_) return;
  state_->isOver = true;
  (void)startThread([state = state_] { state->cancel(); });
  std::unique_lock lock{state_->mutex};
  (void)state_->ended.wait_for(lock, kTimeForEnd, [this] { return state_->hasEnded; });
}

int CardAlarm::descriptor() const noexcept { return state_ ? state_->ends[0] : -1; }

}  // namespace mirel::cli

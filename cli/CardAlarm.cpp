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
// For a call of the card service to come back; a thread that it keeps is left alone.
constexpr milliseconds kTimeForEnd{500};
constexpr milliseconds kBetweenCancels{5};

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
  // Signals are for the thread that has the terminal.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  (void)pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    std::thread{[state] { state->follow(); }}.detach();
    state_ = std::move(state);
  } catch (const std::exception&) {  // no thread: nobody watches
  }
  (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

CardAlarm::~CardAlarm() {
  if (!state_) return;
  state_->isOver = true;
  std::unique_lock lock{state_->mutex};
  for (milliseconds waited{0}; !state_->hasEnded && waited < kTimeForEnd; waited += kBetweenCancels) {
    state_->watch->cancel();
    (void)state_->ended.wait_for(lock, kBetweenCancels, [this] { return state_->hasEnded; });
  }
}

int CardAlarm::descriptor() const noexcept { return state_ ? state_->ends[0] : -1; }

}  // namespace mirel::cli

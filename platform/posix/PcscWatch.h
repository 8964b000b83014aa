#pragma once

/// Follows the readers by the calls of PC/SC, in either of its two forms.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "PcscView.h"

namespace mirel::pcsc {

/// The name by which some services tell of readers that come and go.
inline constexpr const char* kComingReaders = "\\\\?PnP?\\Notification";

/// How long one wait takes at most: of a service that knows that name, and of one that does not.
inline constexpr std::chrono::milliseconds kLongWait{60000};
inline constexpr std::chrono::milliseconds kShortWait{500};
/// A pause where a wait has told nothing new, or there is nobody to wait for.
inline constexpr std::chrono::milliseconds kPause{100};
inline constexpr std::chrono::milliseconds kPauseWithoutService{500};

template <typename Form>
class Watch final : public CardServiceWatch {
 public:
  explicit Watch(std::string library) : library_{std::move(library)} {}
  ~Watch() override { disconnect(); }

  CardServiceView next(std::chrono::milliseconds limit) noexcept override {
    try {
      return nextOrThrow(limit);
    } catch (const std::exception& error) {  // no memory
      return {CardServiceView::State::kSilent, error.what(), {}};
    }
  }

  void cancel() noexcept override {
    cancelled_ = true;
    const std::lock_guard lock{mutex_};
    if (context_) view_.cancel(*context_);
    wakeUp_.notify_all();
  }

 private:
  using Clock = std::chrono::steady_clock;
  using Context = typename Form::Context;
  using Number = typename Form::Number;
  using ReaderState = typename Form::ReaderState;

  CardServiceView nextOrThrow(std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    while (true) {
      CardServiceView seen = look();
      const auto now = Clock::now();
      if (cancelled_ || now >= end || !asTold(seen)) return told_ = std::move(seen);
      wait(std::chrono::ceil<std::chrono::milliseconds>(end - now));
    }
  }

  CardServiceView look() {
    CardServiceView failed;
    if (!isOpen_) isOpen_ = view_.open(library_, failed);
    if (!isOpen_ || (!context_ && !connect(failed))) return failed;
    states_.clear();
    CardServiceView seen = view_.readersIn(*context_, &states_);
    if (seen.state == CardServiceView::State::kAnswers) {
      seen.connection = connections_;
    } else {
      disconnect();
    }
    return seen;
  }

  /// For what reason a service is silent is no news.
  [[nodiscard]] bool asTold(CardServiceView seen) const {
    seen.evidence = told_.evidence;
    return seen == told_ && !(told_ == CardServiceView{});
  }

  [[nodiscard]] bool connect(CardServiceView& outFailed) {
    Context context{};
    if (!view_.connect(context, outFailed)) return false;
    {
      const std::lock_guard lock{mutex_};
      context_ = context;
    }
    ++connections_;
    ReaderState coming{};
    coming.reader = kComingReaders;
    std::vector asked{coming};
    const auto code = view_.wait(context, 0, asked);
    knowsComing_ = (code == kSuccess || code == kTimeout) && (asked.front().eventState & kStateUnknown) == 0;
    coming_ = static_cast<Number>(asked.front().eventState & ~Number{kStateChanged});
    return true;
  }

  void disconnect() noexcept {
    std::optional<Context> context;
    {
      const std::lock_guard lock{mutex_};
      context.swap(context_);
    }
    if (context) view_.disconnect(*context);
  }

  /// Until something may have changed. What it was shows at the next look.
  void wait(std::chrono::milliseconds limit) {
    if (!context_) return pause(std::min(limit, kPauseWithoutService));
    std::vector<ReaderState> states;
    for (std::size_t i = 0; i < told_.readers.size() && i < states_.size(); ++i) {
      ReaderState state{};
      state.reader = told_.readers[i].name.c_str();
      state.currentState = static_cast<Number>(states_[i] & ~Number{kStateChanged});
      states.push_back(state);
    }
    if (knowsComing_) {
      ReaderState state{};
      state.reader = kComingReaders;
      state.currentState = coming_;
      states.push_back(state);
    }
    if (states.empty()) return pause(std::min(limit, kShortWait));
    const auto most = std::min(limit, knowsComing_ ? kLongWait : kShortWait);
    const auto begin = Clock::now();
    const auto code = view_.wait(*context_, static_cast<Number>(most.count()), states);
    if (knowsComing_) coming_ = static_cast<Number>(states.back().eventState & ~Number{kStateChanged});
    // That a reader has gone is no reason to take the service for one that was stopped.
    constexpr std::uint32_t kOfRunning[] = {kSuccess, kTimeout, kUnknownReader, kReaderUnavailable,
                                            kNoReaders};
    const bool goesOn =
        cancelled_ || std::find(std::begin(kOfRunning), std::end(kOfRunning), code) != std::end(kOfRunning);
    if (!goesOn) disconnect();
    // A service may call a change what is none for us, or fail at once each time.
    if (!goesOn || (Clock::now() - begin < kPause && asTold(look()))) pause(std::min(limit, kPause));
  }

  void pause(std::chrono::milliseconds time) {
    std::unique_lock lock{mutex_};
    (void)wakeUp_.wait_for(lock, time, [this] { return cancelled_.load(); });
  }

  std::string library_;
  View<Form> view_;
  bool isOpen_ = false;
  bool knowsComing_ = false;
  Number coming_ = 0;  // the state behind that name
  std::vector<Number> states_;
  CardServiceView told_;
  std::uint32_t connections_ = 0;

  std::atomic<bool> cancelled_{false};
  std::mutex mutex_;
  std::condition_variable wakeUp_;
  std::optional<Context> context_;  // changed with the mutex
};

}  // namespace mirel::pcsc

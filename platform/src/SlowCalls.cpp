#include "platform/SlowCalls.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Log.h"

namespace mirel {
namespace {

using Clock = std::chrono::steady_clock;

class SlowCallObserver final : public CryptokiObserver {
 public:
  SlowCallObserver(std::shared_ptr<Log> log, std::chrono::milliseconds limit)
      : log_{std::move(log)}, limit_{limit} {}
  ~SlowCallObserver() override {
    {
      const std::lock_guard lock{mutex_};
      ends_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) thread_.join();
  }

  void callStarts(const char* function) noexcept override {
    const std::lock_guard lock{mutex_};
    if (running_.empty()) begin();
    running_.emplace_back(std::this_thread::get_id(), function);
    if (!started_) {
      started_ = true;
      start();
    } else {
      wake();
    }
  }

  void callReturned(const char*, std::uint64_t) noexcept override {
    const std::lock_guard lock{mutex_};
    const auto own = std::find_if(running_.begin(), running_.end(),
                                  [](const auto& call) { return call.first == std::this_thread::get_id(); });
    if (own == running_.end()) return;
    running_.erase(own);
    begin();
    if (!running_.empty()) wake();
  }

  void operationReturned(BridgeOperation, std::uint64_t) noexcept override {}

 private:
  /// From now on the module has to return from a call.
  void begin() noexcept {
    since_ = Clock::now();
    told_ = false;
  }

  /// A thread that waits for the end of a time is left alone: calls are many, and each waking takes its time.
  void wake() noexcept {
    if (std::exchange(sleeps_, false)) changed_.notify_one();
  }

  void start() noexcept {
    try {
      thread_ = std::thread{[this] { watch(); }};
    } catch (const std::system_error&) {
      // Without the thread nothing is told; the calls go on.
    }
  }

  void watch() {
    std::unique_lock lock{mutex_};
    while (!ends_) {
      if (running_.empty() || told_) {
        sleeps_ = true;
        changed_.wait(lock, [this] { return !sleeps_ || ends_; });
      } else if (Clock::now() - since_ < limit_) {
        changed_.wait_until(lock, since_ + limit_);
      } else {
        told_ = true;
        const std::string line = lineOf();
        lock.unlock();  // the log may take its time
        log_->systemError(line);
        lock.lock();
      }
    }
  }

  [[nodiscard]] std::string lineOf() const {
    std::string names;
    for (const auto& [thread, function] : running_)
      names += (names.empty() ? "" : ", ") + std::string{function};
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit_).count();
    return "the module has not returned from " + names + " for " + std::to_string(seconds) +
           " s: the card, its reader or the service behind it does not answer; take the card out and put it "
           "back";
  }

  std::shared_ptr<Log> log_;
  std::chrono::milliseconds limit_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::pair<std::thread::id, const char*>> running_;
  Clock::time_point since_{};
  bool told_ = false;     ///< of the calls that are under way
  bool sleeps_ = false;   ///< the thread has nothing to look at
  bool started_ = false;  ///< the thread
  bool ends_ = false;
  std::thread thread_;
};

}  // namespace

std::shared_ptr<CryptokiObserver> slowCallObserver(std::shared_ptr<Log> log,
                                                   std::chrono::milliseconds limit) {
  return std::make_shared<SlowCallObserver>(std::move(log), limit);
}

}  // namespace mirel

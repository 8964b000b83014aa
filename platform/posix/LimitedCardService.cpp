#include "LimitedCardService.h"

#include <csignal>

#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace mirel {
namespace {

/// What the thread and who waits for it share.
struct Answer {
  std::mutex mutex;
  std::condition_variable come;
  std::optional<CardServiceView> view;
};

CardServiceView silent(std::string why) { return {CardServiceView::State::kSilent, std::move(why), {}}; }

/// Keeps signals from threads that are started while there is one.
class SignalsBlocked {
 public:
  SignalsBlocked() noexcept {
    sigset_t all;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_{};
};

class LimitedCardService final : public CardService {
 public:
  LimitedCardService(std::function<CardServiceView()> look,
                     std::function<std::unique_ptr<CardServiceWatch>()> watch,
                     std::chrono::milliseconds limit)
      : look_{std::move(look)}, watch_{std::move(watch)}, limit_{limit} {}

  CardServiceView look() noexcept override {
    try {
      return lookInTime();
    } catch (const std::exception& error) {  // no thread, or no memory
      return silent(error.what());
    }
  }

  std::unique_ptr<CardServiceWatch> watch() noexcept override {
    try {
      return watch_();
    } catch (const std::exception&) {
      return nullptr;
    }
  }

 private:
  CardServiceView lookInTime() {
    const auto answer = std::make_shared<Answer>();
    {
      const SignalsBlocked blocked;
      std::thread{[answer, look = look_] {
        CardServiceView view;
        try {
          view = look();
        } catch (const std::exception& error) {
          view = silent(error.what());
        }
        const std::lock_guard lock{answer->mutex};
        answer->view = std::move(view);
        answer->come.notify_one();
      }}.detach();
    }
    std::unique_lock lock{answer->mutex};
    if (answer->come.wait_for(lock, limit_, [&] { return answer->view.has_value(); }))
      return *std::move(answer->view);
    return silent("no answer within " + std::to_string(limit_.count()) + " ms");
  }

  std::function<CardServiceView()> look_;
  std::function<std::unique_ptr<CardServiceWatch>()> watch_;
  std::chrono::milliseconds limit_;
};

}  // namespace

std::shared_ptr<CardService> limitedCardService(std::function<CardServiceView()> look,
                                                std::function<std::unique_ptr<CardServiceWatch>()> watch,
                                                std::chrono::milliseconds limit) {
  return std::make_shared<LimitedCardService>(std::move(look), std::move(watch), limit);
}

}  // namespace mirel

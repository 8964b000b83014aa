#include "ExitGuard.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ExitCode.h"
#include "Json.h"
#include "Terminal.h"

namespace mirel::cli {
namespace {

// For the handler, which can be given nothing.
std::atomic<bool> isArmed{false};
std::atomic<bool> printsJson{false};
std::atomic<const char*> runningCall{nullptr};
std::atomic<pid_t> ownProcess{0};
std::atomic<int> finalCode{-1};  // -1: the program has not come to its end

// The check for leaks runs when all handlers are done.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kEndsHere = false;
#elif defined(__has_feature)
constexpr bool kEndsHere = !__has_feature(address_sanitizer);
#else
constexpr bool kEndsHere = true;
#endif

void endAsRefusal() {
  if (getpid() != ownProcess) return;  // a child that the module has made
  // The module's own end comes before this, and may have called exit again, with a code of its own.
  if (kEndsHere && finalCode >= 0) {
    (void)std::fflush(nullptr);
    _exit(finalCode);
  }
  if (!isArmed.exchange(false)) return;
  restoreTerminal();
  const char* call = runningCall;
  std::string why{"it called exit"};
  if (call) why.append(" in ").append(call);
  const Failure failure{FailureKind::kCardRefuses, "the card's software ended the program", why,
                        "ask the card's maker for a version that does not"};
  _exit(static_cast<int>(report(failure, printsJson)));
}

class CallNames final : public CryptokiObserver {
 public:
  void callStarts(const char* function) noexcept override { runningCall = function; }
  void callReturned(const char*, std::uint64_t) noexcept override { runningCall = nullptr; }
  void operationReturned(BridgeOperation, std::uint64_t) noexcept override {}
};

}  // namespace

ExitGuard::ExitGuard(bool json) noexcept {
  printsJson = json;
  ownProcess = getpid();
  isArmed = std::atexit(&endAsRefusal) == 0;
}

void ExitGuard::programEndsWith(int code) noexcept { finalCode = code; }

ExitGuard::~ExitGuard() { isArmed = false; }

std::shared_ptr<CryptokiObserver> ExitGuard::observer() { return std::make_shared<CallNames>(); }

}  // namespace mirel::cli

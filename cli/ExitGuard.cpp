#include "ExitGuard.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "ExitCode.h"
#include "Output.h"
#include "Terminal.h"

namespace mirel::cli {
namespace {

// For the handler, which can be given nothing.
std::atomic<bool> isArmed{false};
std::atomic<const char*> runningCall{nullptr};

void endAsRefusal() {
  if (!isArmed.exchange(false)) return;
  restoreTerminal();
  const char* call = runningCall;
  std::string message{"mireltoken: the card's software ended the program: it called exit"};
  if (call) message.append(" in ").append(call);
  writeMessage(message.append("; ask the card's maker for a version that does not"));
  _exit(static_cast<int>(ExitCode::kCardRefuses));
}

class CallNames final : public CryptokiObserver {
 public:
  void callStarts(const char* function) noexcept override { runningCall = function; }
  void callReturned(const char*, std::uint64_t) noexcept override { runningCall = nullptr; }
  void operationReturned(const char*, std::uint64_t) noexcept override {}
};

}  // namespace

ExitGuard::ExitGuard() noexcept { isArmed = std::atexit(&endAsRefusal) == 0; }

ExitGuard::~ExitGuard() { isArmed = false; }

std::shared_ptr<CryptokiObserver> ExitGuard::observer() { return std::make_shared<CallNames>(); }

}  // namespace mirel::cli

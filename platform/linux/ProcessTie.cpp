#include "platform/ProcessTie.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace mirel {
namespace {

/// The kernel sends the signal: that takes no thread, and none of its memory.
class KernelTie final : public ProcessTie {
 public:
  void wear() noexcept override {
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    // It may have ended before.
    if (getppid() != parent_) (void)kill(getpid(), SIGKILL);
  }

  void hold() noexcept override {}

 private:
  pid_t parent_ = getpid();
};

}  // namespace

std::unique_ptr<ProcessTie> newProcessTie() { return std::make_unique<KernelTie>(); }

}  // namespace mirel

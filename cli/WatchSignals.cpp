#include "WatchSignals.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace mirel::cli {
namespace {

// For the handler, which can be given nothing.
volatile std::sig_atomic_t input = -1;
volatile std::sig_atomic_t requests = 0;

void note(int signal) {
  const int error = errno;
  if (signal != SIGCHLD) requests = requests + 1;
  // Whoever asks so often sees a program that is held up, as by output that nobody reads.
  if (signal != SIGCHLD && requests > WatchSignals::kMostRequests) {
    (void)std::signal(signal, SIG_DFL);
    (void)raise(signal);
  }
  (void)!write(input, "", 1);  // where there is no room, there is input
  errno = error;
}

}  // namespace

WatchSignals::WatchSignals() {
  std::array<int, 2> ends{-1, -1};
  if (pipe(ends.data()) == 0) {
    for (const int end : ends) {
      (void)fcntl(end, F_SETFD, FD_CLOEXEC);
      (void)fcntl(end, F_SETFL, O_NONBLOCK);
    }
  }
  output_ = ends[0];
  input = ends[1];
  requests = 0;
  struct sigaction action {};
  action.sa_handler = note;
  action.sa_flags = SA_RESTART;
  for (std::size_t i = 0; i < std::size(kSignals); ++i) {
    (void)sigaction(kSignals[i], &action, &before_[i]);
    if (before_[i].sa_handler == SIG_IGN && kSignals[i] != SIGCHLD)
      (void)sigaction(kSignals[i], &before_[i], nullptr);
  }
}

WatchSignals::~WatchSignals() {
  for (std::size_t i = 0; i < std::size(kSignals); ++i) (void)sigaction(kSignals[i], &before_[i], nullptr);
  (void)close(output_);
  (void)close(input);
}

void WatchSignals::take() const noexcept {
  std::array<char, 64> bytes{};
  while (read(output_, bytes.data(), bytes.size()) > 0) continue;
}

int WatchSignals::numRequests() const noexcept { return requests; }

}  // namespace mirel::cli

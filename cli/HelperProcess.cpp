#include "HelperProcess.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <mutex>
#include <set>
#include <thread>

namespace mirel::cli {
namespace {

constexpr std::size_t kLongestText = 1U << 20U;  // bytes

/// The ends of this process's pipes: a helper that held another one's leash would keep it alive.
std::set<int>& heldEnds() {
  static std::set<int> ends;
  return ends;
}

void closeEnd(int& end) noexcept {
  if (end < 0) return;
  heldEnds().erase(end);
  (void)close(end);
  end = -1;
}

struct Pipe {
  int output = -1;
  int input = -1;
};

std::optional<Pipe> newPipe() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) return std::nullopt;
  for (const int end : ends) (void)fcntl(end, F_SETFD, FD_CLOEXEC);
  return Pipe{ends[0], ends[1]};
}

/// The helper's end of the two pipes; a thread shares it.
class Line final : public HelperLine, public std::enable_shared_from_this<Line> {
 public:
  Line(int texts, int leash, std::chrono::milliseconds timeForEnd)
      : texts_{texts}, leash_{leash}, timeForEnd_{timeForEnd} {}

  /// Waits for the other end of the leash to be let go.
  void wear() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread{[this, self = shared_from_this()] {
      char none = 0;
      while (read(leash_, &none, 1) < 0 && errno == EINTR) continue;
      {
        const std::lock_guard lock{mutex_};
        ends_ = true;
      }
      toldToEnd_.notify_all();
      std::this_thread::sleep_for(timeForEnd_);
      (void)::kill(getpid(), SIGKILL);
    }}.detach();
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  void send(const std::string& text) override {
    const std::string line = text + "\n";
    std::size_t sent = 0;
    while (sent < line.size()) {
      const ssize_t count = write(texts_, line.data() + sent, line.size() - sent);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return;  // nobody reads any more
      sent += static_cast<std::size_t>(count);
    }
  }

  void waitForEnd() override {
    std::unique_lock lock{mutex_};
    toldToEnd_.wait(lock, [this] { return ends_; });
  }

 private:
  int texts_;
  int leash_;
  std::chrono::milliseconds timeForEnd_;
  std::mutex mutex_;
  std::condition_variable toldToEnd_;
  bool ends_ = false;
};

void becomeHelper() {
  (void)setpgid(0, 0);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) (void)std::signal(signal, SIG_DFL);
  // A message to a terminal that is set to stop whoever writes from the background must not stop this one.
  (void)std::signal(SIGTTOU, SIG_IGN);
  for (const int end : heldEnds()) (void)close(end);
  heldEnds().clear();
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (nothing >= 0) (void)dup2(nothing, STDIN_FILENO);
  (void)dup2(STDERR_FILENO, STDOUT_FILENO);
}

/// Nothing may be thrown out of here: this is a copy of a process that has other helpers, and would end them.
[[noreturn]] void helpWith(const std::function<void(HelperLine&)>& work, const Watch& watch, int texts,
                           int leash, std::chrono::milliseconds timeForEnd) noexcept {
  becomeHelper();
  const auto line = std::make_shared<Line>(texts, leash, timeForEnd);
  const auto done = runInWorker(
      [&] {
        try {
          line->wear();
          work(*line);
        } catch (const std::exception& error) {
          line->send(
              messageOf(Failure{FailureKind::kInternal, "internal error", error.what(), "please report it"}));
        }
        return ExitCode::kSuccess;
      },
      watch);
  if (!done) line->send(messageOf(done.failure()));
  _exit(0);
}

}  // namespace

Result<std::unique_ptr<HelperProcess>> HelperProcess::start(const std::function<void(HelperLine&)>& work,
                                                            const Watch& watch, bool endsAtOnce) {
  auto texts = newPipe();
  auto leash = newPipe();
  const pid_t process = texts && leash ? fork() : -1;
  if (process == 0) {
    (void)close(texts->output);
    (void)close(leash->input);
    helpWith(work, watch, texts->input, leash->output,
             endsAtOnce ? std::chrono::milliseconds{0} : kTimeForEnd);
  }
  const Failure failure = noProcessFailure(errno);
  if (texts) (void)close(texts->input);
  if (leash) (void)close(leash->output);
  if (process < 0) {
    if (texts) (void)close(texts->output);
    if (leash) (void)close(leash->input);
    return failure;
  }
  (void)setpgid(process, process);  // whoever comes first
  auto helper = std::unique_ptr<HelperProcess>{new HelperProcess};
  helper->process_ = process;
  helper->texts_ = texts->output;
  helper->leash_ = leash->input;
  (void)fcntl(helper->texts_, F_SETFL, O_NONBLOCK);
  heldEnds().insert({helper->texts_, helper->leash_});
  return helper;
}

HelperProcess::~HelperProcess() {
  kill();
  if (process_ > 0) (void)waitpid(process_, nullptr, 0);
  closeEnd(texts_);
}

std::vector<std::string> HelperProcess::takeTexts() {
  std::array<char, 4096> buffer{};
  ssize_t count = 0;
  while (texts_ >= 0 && (count = read(texts_, buffer.data(), buffer.size())) > 0) {
    begun_.append(buffer.data(), static_cast<std::size_t>(count));
    if (begun_.size() > kLongestText) kill();
    if (begun_.size() > 2 * kLongestText) break;
  }
  if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) closeEnd(texts_);
  std::vector<std::string> texts;
  for (std::size_t end = 0; (end = begun_.find('\n')) != std::string::npos;) {
    std::string text = begun_.substr(0, end);
    begun_.erase(0, end + 1);
    if (auto failure = failureIn(text)) {
      failure_ = std::move(failure);
    } else {
      texts.push_back(std::move(text));
    }
  }
  return texts;
}

void HelperProcess::end() noexcept {
  closeEnd(leash_);
  // Nobody reads any more: a helper that is just writing would wait for room without end.
  closeEnd(texts_);
}

void HelperProcess::kill() noexcept {
  closeEnd(leash_);
  if (process_ > 0) (void)::kill(-process_, SIGKILL);
}

bool HelperProcess::hasEnded() noexcept {
  if (process_ > 0 && waitpid(process_, nullptr, WNOHANG) != 0) process_ = -1;
  return process_ < 0;
}

}  // namespace mirel::cli

#include "PseudoTerminal.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): posix_openpt is POSIX, not standard C++
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <sstream>
#include <system_error>
#include <thread>

namespace mirel::test {
namespace {

constexpr std::chrono::seconds kLongestWait{20};
constexpr int kPieceOfWait = 50;  // milliseconds

void require(bool done, const char* what) {
  if (!done) throw std::system_error{errno, std::generic_category(), what};
}

int countOf(const std::string& part, const std::string& text) {
  int count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) ++count;
  return count;
}

}  // namespace

PseudoTerminal::PseudoTerminal() : ours_{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)} {
  require(ours_ >= 0 && grantpt(ours_) == 0 && unlockpt(ours_) == 0, "posix_openpt");
  name_ = ptsname(ours_);
  theirs_ = open(name_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  require(theirs_ >= 0, name_.c_str());
}

PseudoTerminal::~PseudoTerminal() {
  (void)close(theirs_);
  (void)close(ours_);
}

bool PseudoTerminal::waitFor(const std::string& text, int times) {
  const auto deadline = std::chrono::steady_clock::now() + kLongestWait;
  while (countOf(text, shown_) < times) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    read(kPieceOfWait);
  }
  return true;
}

void PseudoTerminal::type(const std::string& keys) const {
  require(write(ours_, keys.data(), keys.size()) == static_cast<ssize_t>(keys.size()), "write");
}

bool PseudoTerminal::waitUntilRead() const {
  const auto deadline = std::chrono::steady_clock::now() + kLongestWait;
  for (int unread = 1; unread != 0;) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds{kPieceOfWait});
    require(ioctl(theirs_, FIONREAD, &unread) == 0, "FIONREAD");
  }
  std::this_thread::sleep_for(std::chrono::milliseconds{kPieceOfWait});
  return true;
}

const std::string& PseudoTerminal::shown() {
  for (std::size_t before = shown_.size() + 1; before != shown_.size();) {
    before = shown_.size();
    read(0);
  }
  return shown_;
}

std::string PseudoTerminal::settings() const {
  termios found{};
  require(tcgetattr(theirs_, &found) == 0, "tcgetattr");
  std::ostringstream text;
  text << found.c_iflag << ' ' << found.c_oflag << ' ' << found.c_cflag << ' ' << found.c_lflag;
  for (const cc_t character : found.c_cc) text << ' ' << static_cast<unsigned>(character);
  return text.str();
}

bool PseudoTerminal::echoes() const {
  termios found{};
  require(tcgetattr(theirs_, &found) == 0, "tcgetattr");
  return (found.c_lflag & ECHO) != 0;
}

void PseudoTerminal::read(int milliseconds) {
  pollfd waiting{ours_, POLLIN, 0};
  if (poll(&waiting, 1, milliseconds) <= 0) return;
  std::array<char, 4096> buffer{};
  const ssize_t got = ::read(ours_, buffer.data(), buffer.size());
  if (got > 0) shown_.append(buffer.data(), static_cast<std::size_t>(got));
}

}  // namespace mirel::test

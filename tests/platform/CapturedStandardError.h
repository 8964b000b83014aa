#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

namespace mirel {

/// Standard error while it lives: a socket that keeps each write apart.
class CapturedStandardError {
 public:
  CapturedStandardError() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends_.data()), 0);
    saved_ = dup(STDERR_FILENO);
    EXPECT_GE(dup2(ends_[1], STDERR_FILENO), 0);
  }
  CapturedStandardError(const CapturedStandardError&) = delete;
  CapturedStandardError& operator=(const CapturedStandardError&) = delete;
  ~CapturedStandardError() {
    restore();
    for (const int end : ends_) close(end);
  }

  /// Ends the capture and tells what was written, one element for each write.
  [[nodiscard]] std::vector<std::string> writes() {
    restore();
    std::vector<std::string> all;
    std::array<char, 8192> buffer{};
    for (;;) {
      const ssize_t size = recv(ends_[0], buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (size <= 0) return all;
      all.emplace_back(buffer.data(), static_cast<std::size_t>(size));
    }
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    saved_ = -1;
  }

  std::array<int, 2> ends_{-1, -1};
  int saved_ = -1;
};

}  // namespace mirel

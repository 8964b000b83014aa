#pragma once

#include <sys/resource.h>

#include <csignal>

namespace mirel::test {

/// Lets no file grow beyond so many bytes, in this process and its children, for its lifetime.
class ScopedFileSizeLimit {
 public:
  explicit ScopedFileSizeLimit(rlim_t size) : action_{std::signal(SIGXFSZ, SIG_IGN)} {
    (void)getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limited{size, before_.rlim_max};
    (void)setrlimit(RLIMIT_FSIZE, &limited);
  }
  ScopedFileSizeLimit(const ScopedFileSizeLimit&) = delete;
  ScopedFileSizeLimit& operator=(const ScopedFileSizeLimit&) = delete;
  ~ScopedFileSizeLimit() {
    (void)setrlimit(RLIMIT_FSIZE, &before_);
    (void)std::signal(SIGXFSZ, action_);
  }

 private:
  void (*action_)(int);
  rlimit before_{};
};

}  // namespace mirel::test

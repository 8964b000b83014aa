#pragma once

/// One run of the command line, in processes that are made of this one, so that nothing is loaded anew.

#include <filesystem>
#include <string>
#include <vector>

namespace mirel::test {

struct RunResult {
  int exitCode = 0;
  int signal = 0;  ///< that ended it; SIGALRM: it took longer than kLongestRun
  std::string out;
  std::string err;
};

inline constexpr unsigned kLongestRun = 10;  // seconds

/// `mireltoken` with these arguments and an empty standard input.
[[nodiscard]] RunResult runCommand(const std::vector<std::string>& arguments);

}  // namespace mirel::test

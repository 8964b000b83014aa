#pragma once

#include <termios.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "host/Failure.h"
#include "recording/RecordedCall.h"

namespace mirel::cli {

// What a worker tells the process that watches it (see Worker.h), in memory that both have.

/// The name under which the loading of a library is noted, as if it were a call.
inline constexpr const char* kLoading = "dlopen";

/// The page that both processes have. The worker writes it, and so can a module that has lost its way.
struct WorkerPage {
  static constexpr std::size_t kLongestCallName = 32;
  static constexpr std::size_t kLongestSignalName = 16;
  static constexpr int kStillAtWork = -1;
  static constexpr int kNoEnd = -1;
  static constexpr int kNoFailure = -1;
  static constexpr std::size_t kLongestText = 1024;

  // A call that is under way, and its number: two calls of one function are not one long call.
  std::atomic<std::uint64_t> calls{0};
  std::array<std::atomic<char>, kLongestCallName> call{};  // without a zero where there is none under way
  std::atomic<int> code{kStillAtWork};
  std::atomic<bool> terminalIsChanged{false};
  termios terminal{};
  std::atomic<bool> fileIsThere{false};
  std::array<char, PATH_MAX> file{};
  // The end of another process, where a recording of that is replayed.
  std::atomic<int> endKind{kNoEnd};
  std::array<std::atomic<char>, kLongestSignalName> endSignal{};
  std::atomic<std::uint64_t> endSeconds{0};
  // What has failed already, while more is asked about it.
  std::atomic<int> failureKind{kNoFailure};
  std::array<std::atomic<char>, kLongestText> failureWhat{};
  std::array<std::atomic<char>, kLongestText> failureWhy{};
  std::array<std::atomic<char>, kLongestText> failureAdvice{};

  /// The call that the worker is in; empty: none. Only names have letters, digits and "_".
  [[nodiscard]] std::string callUnderWay() const;

  void noteReplayedEnd(const recording::BadEnd& end) noexcept;
  /// Nothing: none was noted, or it makes no sense.
  [[nodiscard]] std::optional<recording::BadEnd> replayedEnd() const;

  /// The failure that was noted; nothing: none was, or it makes no sense. No text has characters that control
  /// a terminal.
  [[nodiscard]] std::optional<Failure> notedFailure() const;
};

/// Memory that this process and its children have together, of zeros; null: there is none. It stays until
/// the process ends.
[[nodiscard]] void* sharedMemory(std::size_t size) noexcept;

/// Makes the page; `withResults`: and room for what the work comes to. To be called before the worker is
/// started. False where there is no memory for the page; without the room nothing is noted there.
[[nodiscard]] bool makeWorkerPage(bool withResults);

/// Null before it was made.
[[nodiscard]] WorkerPage* workerPage() noexcept;

/// What the work has come to; empty where that was not noted, or makes no sense.
[[nodiscard]] std::string notedResult();

}  // namespace mirel::cli

#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "bridge/CryptokiNames.h"
#include "platform/CryptokiObserver.h"
#include "platform/DynamicLoader.h"

namespace mirel {

/// A call that did not answer CKR_OK.
struct FailedCall {
  std::string name;  ///< of the Cryptoki function, or of the bridge's operation
  std::uint64_t result = 0;
};

/// Whether that answer of the function means that the module failed to find or read what is on the card.
[[nodiscard]] bool isFailedRead(std::string_view function, std::uint64_t result) noexcept;

/// Remembers what went wrong last between the bridge and the module, for the user. Passes everything
/// on to the observer it wraps (may be null).
///
/// Each thread has a page of its own, and reads and forgets that one alone: what another client of the card
/// does at the same time explains nothing here. A page stays when its thread has ended, and a later thread
/// may come upon it: begin with `clear`.
class FailureDiary final : public CryptokiObserver {
 public:
  using Entry = FailedCall;

  explicit FailureDiary(std::shared_ptr<CryptokiObserver> next) : next_{std::move(next)} {}

  void callStarts(const char* function) noexcept override;
  void callReturned(const char* function, std::uint64_t result) noexcept override;
  void operationReturned(BridgeOperation operation, std::uint64_t result) noexcept override;

  void loaderFailed(std::string text) { page().loaderText = std::move(text); }

  /// Forgets everything.
  void clear() noexcept;

  /// What the loader said when it failed last; nothing when it has not.
  [[nodiscard]] const std::optional<std::string>& loaderText() const noexcept { return page().loaderText; }

  /// The innermost operation that has failed since one succeeded.
  [[nodiscard]] const std::optional<Entry>& failedOperation() const noexcept { return page().operation; }

  /// The Cryptoki call that made it fail; nothing when the bridge itself was not content.
  [[nodiscard]] const std::optional<Entry>& failedCall() const noexcept { return page().call; }

  /// What is to blame: that call, or else the operation; nothing when nothing failed.
  [[nodiscard]] std::optional<Entry> cause() const;

  /// The first call since `clear` by which the module failed to find or read what is on the card. That an
  /// object has no such attribute, or keeps it secret, is an answer and no failure.
  [[nodiscard]] const std::optional<Entry>& failedRead() const noexcept { return page().failedRead; }

  /// What that Cryptoki function or operation of the bridge answered last; nothing when it was
  /// not called.
  [[nodiscard]] std::optional<std::uint64_t> lastResultOf(CryptokiFunction function) const;
  [[nodiscard]] std::optional<std::uint64_t> lastResultOf(BridgeOperation operation) const;

  /// All that is known, as one phrase; nothing when nothing failed.
  [[nodiscard]] std::optional<std::string> reason() const;

 private:
  struct Page {
    std::optional<std::string> loaderText;
    std::optional<Entry> operation;
    std::optional<Entry> call;
    std::optional<Entry> failedRead;
    std::vector<Entry> failingCalls;                        // of the operation that is running
    std::map<std::string_view, std::uint64_t> lastAnswers;  // the names live as long as the program
    std::map<BridgeOperation, std::uint64_t> lastResults;
  };

  /// This thread's.
  [[nodiscard]] Page& page() const noexcept;

  std::shared_ptr<CryptokiObserver> next_;
  mutable std::mutex mutex_;  // of the book, not of its pages
  mutable std::map<std::thread::id, Page> pages_;
};

/// The loader `next`, with its failures written in the diary.
[[nodiscard]] std::shared_ptr<DynamicLoader> loaderWithDiary(std::shared_ptr<DynamicLoader> next,
                                                             std::shared_ptr<FailureDiary> diary);

}  // namespace mirel

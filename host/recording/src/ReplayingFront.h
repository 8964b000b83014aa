#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ModuleFront.h"
#include "recording/RecordedCall.h"

namespace mirel::recording {

/// Answers as a module did whose calls were recorded.
class ReplayingFront final : public ModuleFront {
 public:
  /// Which calls of the recording answer.
  enum class Order {
    kExact,    ///< all, one behind the other
    kPassOver  ///< those for the token; what is not asked for again is passed over, and a session that does
               ///< not go on stands for a later one
  };

  /// `onMissing`: told, in words, of a call for which there is no answer; it gets CKR_FUNCTION_FAILED. Calls
  /// may come from several threads.
  ReplayingFront(std::vector<RecordedCall> calls, Order order,
                 std::function<void(const std::string& what)> onMissing);

  /// Tells `onEnd` once all calls have answered and `call`, which never came back, is asked for; without a
  /// call, whatever is asked for then. When it returns, the answer is CKR_FUNCTION_FAILED.
  void endIn(std::optional<RecordedCall> call, std::function<void()> onEnd);

  /// Whether all calls have answered.
  [[nodiscard]] bool isUsedUp();

  CK_RV getFunctionList(CK_FUNCTION_LIST** outList) noexcept override;
  CK_RV called(const char* function, std::span<const Word> words, const Forward& module) noexcept override;

 private:
  /// The call that answers an equal one; null when there is none.
  [[nodiscard]] const RecordedCall* take(const std::string& function, Fields in);
  [[nodiscard]] const RecordedCall* takeInLaterSession(const std::string& function, const Fields& in);
  [[nodiscard]] const RecordedCall* taken(std::size_t index);
  /// Where the session of the call at that place was opened.
  [[nodiscard]] std::optional<std::size_t> openingOf(std::size_t index) const;
  void tellMissing(const std::string& function, const Fields& in) const;
  /// Nothing answers that call: it is the end, or it was not recorded.
  void fail(const std::string& function, const Fields& in) const;

  std::vector<RecordedCall> calls_;
  Order order_;
  std::function<void(const std::string&)> onMissing_;
  std::optional<RecordedCall> lastCall_;
  std::function<void()> onEnd_;
  std::mutex mutex_;
  std::size_t next_ = 0;                            // of the calls
  std::map<std::uint64_t, std::size_t> handedOut_;  // sessions, with the place of their opening
  std::map<std::uint64_t, std::uint64_t> later_;    // what stands for a session that does not go on
};

}  // namespace mirel::recording

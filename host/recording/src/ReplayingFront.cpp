#include "ReplayingFront.h"

#include <algorithm>
#include <type_traits>
#include <utility>

#include "CallAnswer.h"
#include "CallNote.h"
#include "recording/CallText.h"

namespace mirel::recording {
namespace {

constexpr const char* kEntryPoint = "C_GetFunctionList";
constexpr const char* kOpening = "C_OpenSession";

/// The session among arguments or answers; null when there is none.
template <typename SomeFields>
auto* sessionIn(SomeFields& fields) noexcept {
  using Number = std::conditional_t<std::is_const_v<SomeFields>, const std::uint64_t, std::uint64_t>;
  Number* session = nullptr;
  for (auto& field : fields) {
    if (field.name == "session") session = std::get_if<std::uint64_t>(&field.value.held);
  }
  return session;
}

std::string textOf(const RecordedCall& call) {
  const std::string subject = subjectText(call);
  return subject.empty() ? call.function : call.function + " (" + subject + ")";
}

/// The version of the list that the call has handed out; nothing when it was null.
std::optional<CK_VERSION> versionOf(const RecordedCall& call) {
  const Value* value = valueNamed(call.out, "version");
  const auto* fields = value ? std::get_if<Fields>(&value->held) : nullptr;
  if (!fields) return std::nullopt;
  const auto part = [&](const char* name) {
    const Value* number = valueNamed(*fields, name);
    const auto* known = number ? std::get_if<std::uint64_t>(&number->held) : nullptr;
    return static_cast<CK_BYTE>(known ? *known : 0);
  };
  return CK_VERSION{part("major"), part("minor")};
}

std::vector<std::string> missingOf(const RecordedCall& call) {
  std::vector<std::string> names;
  const Value* value = valueNamed(call.out, "missing");
  const auto* list = value ? std::get_if<List>(&value->held) : nullptr;
  if (!list) return names;
  for (const Value& name : *list) {
    if (const auto* text = std::get_if<std::string>(&name.held)) names.push_back(*text);
  }
  return names;
}

}  // namespace

ReplayingFront::ReplayingFront(std::vector<RecordedCall> calls, Order order,
                               std::function<void(const std::string&)> onMissing)
    : ModuleFront{Place::kReplayer},
      calls_{std::move(calls)},
      order_{order},
      onMissing_{std::move(onMissing)} {
  if (order_ == Order::kPassOver)
    std::erase_if(calls_, [](const RecordedCall& call) { return call.road != Road::kToken; });
}

void ReplayingFront::endIn(std::optional<RecordedCall> call, std::function<void()> onEnd) {
  lastCall_ = std::move(call);
  onEnd_ = std::move(onEnd);
}

bool ReplayingFront::isUsedUp() {
  const std::lock_guard lock{mutex_};
  return next_ >= calls_.size();
}

CK_RV ReplayingFront::getFunctionList(CK_FUNCTION_LIST** outList) noexcept {
  const std::lock_guard lock{mutex_};
  const RecordedCall* answer = take(kEntryPoint, {});
  if (!answer) {
    fail(kEntryPoint, {});
    return CKR_FUNCTION_FAILED;
  }
  const auto version = versionOf(*answer);
  if (version) *outList = frontWithout(missingOf(*answer), *version);
  return answer->result;
}

CK_RV ReplayingFront::called(const char* function, std::span<const Word> words, const Forward&) noexcept {
  const FunctionRow* row = rowOf(function);
  const CallNote note{row, words};
  const std::lock_guard lock{mutex_};
  const RecordedCall* answer = take(function, note.in());
  if (!answer) {
    fail(function, note.in());
    return CKR_FUNCTION_FAILED;
  }
  if (row) writeAnswer(*row, words, *answer);
  return answer->result;
}

const RecordedCall* ReplayingFront::take(const std::string& function, Fields in) {
  if (std::uint64_t* session = sessionIn(in)) {
    const auto later = later_.find(*session);
    if (later != later_.end()) *session = later->second;
  }
  const std::size_t end = order_ == Order::kExact ? std::min(next_ + 1, calls_.size()) : calls_.size();
  for (std::size_t i = next_; i < end; ++i) {
    if (calls_[i].function == function && calls_[i].in == in) return taken(i);
  }
  return order_ == Order::kExact ? nullptr : takeInLaterSession(function, in);
}

const RecordedCall* ReplayingFront::takeInLaterSession(const std::string& function, const Fields& in) {
  Fields wanted = in;
  std::uint64_t* session = sessionIn(wanted);
  if (!session) return nullptr;
  const std::uint64_t asked = *session;
  const auto opened = handedOut_.find(asked);
  for (std::size_t i = next_; i < calls_.size(); ++i) {
    const auto place = openingOf(i);
    if (calls_[i].function != function || !place || opened == handedOut_.end() || *place <= opened->second)
      continue;
    *session = *sessionIn(calls_[i].in);
    if (calls_[i].in != wanted) continue;
    handedOut_[*session] = *place;
    for (auto& [from, to] : later_) to = to == asked ? *session : to;
    later_[asked] = *session;
    return taken(i);
  }
  return nullptr;
}

const RecordedCall* ReplayingFront::taken(std::size_t index) {
  next_ = index + 1;
  RecordedCall& call = calls_[index];
  if (const std::uint64_t* session = call.function == kOpening ? sessionIn(call.out) : nullptr) {
    handedOut_[*session] = index;
    later_.erase(*session);
  }
  return &call;
}

std::optional<std::size_t> ReplayingFront::openingOf(std::size_t index) const {
  const std::uint64_t* session = sessionIn(calls_[index].in);
  for (std::size_t i = index; session && i-- > 0;) {
    const std::uint64_t* opened = calls_[i].function == kOpening ? sessionIn(calls_[i].out) : nullptr;
    if (opened && *opened == *session) return i;
  }
  return std::nullopt;
}

void ReplayingFront::fail(const std::string& function, const Fields& in) const {
  const bool isLast = !lastCall_ || (lastCall_->function == function && lastCall_->in == in);
  if (onEnd_ && next_ >= calls_.size() && isLast) return onEnd_();
  tellMissing(function, in);
}

void ReplayingFront::tellMissing(const std::string& function, const Fields& in) const {
  RecordedCall wanted;
  wanted.function = function;
  wanted.in = in;
  const RecordedCall* next = lastCall_ ? &*lastCall_ : nullptr;
  if (next_ < calls_.size()) next = &calls_[next_];
  std::string what = textOf(wanted) + " was not recorded here: ";
  if (!next) {
    what += "the recording ends before it";
  } else if (next->function == function && next->in != in && textOf(*next) == textOf(wanted)) {
    what += "it had other arguments";
  } else {
    what += "the recording goes on with " + textOf(*next);
  }
  onMissing_(what);
}

}  // namespace mirel::recording

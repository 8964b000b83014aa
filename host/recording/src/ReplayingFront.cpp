#include "ReplayingFront.h"

#include <algorithm>
#include <utility>

#include "CallAnswer.h"
#include "CallNote.h"
#include "recording/CallText.h"

namespace mirel::recording {
namespace {

constexpr const char* kEntryPoint = "C_GetFunctionList";

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
    : calls_{std::move(calls)}, order_{order}, onMissing_{std::move(onMissing)} {
  if (order_ == Order::kPassOver)
    std::erase_if(calls_, [](const RecordedCall& call) { return call.road != Road::kToken; });
}

CK_RV ReplayingFront::getFunctionList(CK_FUNCTION_LIST** outList) noexcept {
  const std::lock_guard lock{mutex_};
  const RecordedCall* answer = take(kEntryPoint, {});
  if (!answer) {
    tellMissing(kEntryPoint, {});
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
    tellMissing(function, note.in());
    return CKR_FUNCTION_FAILED;
  }
  if (row) writeAnswer(*row, words, *answer);
  return answer->result;
}

const RecordedCall* ReplayingFront::take(const std::string& function, const Fields& in) {
  const auto isEqual = [&](const RecordedCall& call) { return call.function == function && call.in == in; };
  const auto start = calls_.begin() + static_cast<std::ptrdiff_t>(next_);
  const auto end = order_ == Order::kExact && start != calls_.end() ? start + 1 : calls_.end();
  const auto found = std::find_if(start, end, isEqual);
  if (found == end) return nullptr;
  next_ = static_cast<std::size_t>(found - calls_.begin()) + 1;
  return &*found;
}

void ReplayingFront::tellMissing(const std::string& function, const Fields& in) const {
  RecordedCall wanted;
  wanted.function = function;
  wanted.in = in;
  std::string what = textOf(wanted) + " was not recorded here: ";
  if (next_ >= calls_.size()) {
    what += "the recording ends before it";
  } else if (calls_[next_].function == function && calls_[next_].in != in &&
             textOf(calls_[next_]) == textOf(wanted)) {
    what += "it had other arguments";
  } else {
    what += "the recording goes on with " + textOf(calls_[next_]);
  }
  onMissing_(what);
}

}  // namespace mirel::recording

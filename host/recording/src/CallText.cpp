#include "recording/CallText.h"

#include <array>
#include <charconv>
#include <string_view>

#include "bridge/CryptokiNames.h"
#include "platform/Hex.h"

namespace mirel::recording {
namespace {

// A call of this program is about less; a file may hold anything, and a table is as wide as its widest row.
constexpr std::size_t kLongestSubject = 400;  // bytes

// All results that the standard has names for are below, but for this one.
constexpr CK_RV kResultsEnd = 0x1000;

void add(std::string& text, std::string_view part, std::string_view between = ", ") {
  if (!text.empty()) text += between;
  text += part;
}

std::string typesOf(const List& attributes) {
  std::string text;
  for (const Value& attribute : attributes) {
    const auto* fields = std::get_if<Fields>(&attribute.held);
    const Value* type = fields ? valueNamed(*fields, "type") : nullptr;
    if (!type) continue;
    if (const auto* name = std::get_if<std::string>(&type->held)) add(text, *name);
    if (const auto* number = std::get_if<std::uint64_t>(&type->held))
      add(text, "0x" + hexOfNumber(*number, HexDigits::kUpper));
  }
  return text;
}

}  // namespace

std::string resultText(std::uint64_t result) {
  const std::string_view name = cryptokiResultName(result);
  return name.empty() ? "0x" + hexOfNumber(result, HexDigits::kUpper) : std::string{name};
}

std::optional<std::uint64_t> resultOfText(std::string_view text) {
  if (text.starts_with("0x")) {
    std::uint64_t result = 0;
    const auto read = std::from_chars(text.data() + 2, text.data() + text.size(), result, 16);
    const bool isWhole = read.ec == std::errc{} && read.ptr == text.data() + text.size();
    return isWhole ? std::optional{result} : std::nullopt;
  }
  if (text.empty()) return std::nullopt;
  for (CK_RV result = 0; result < kResultsEnd; ++result) {
    if (cryptokiResultName(result) == text) return result;
  }
  return text == cryptokiResultName(CKR_VENDOR_DEFINED) ? std::optional<std::uint64_t>{CKR_VENDOR_DEFINED}
                                                        : std::nullopt;
}

std::string subjectText(const RecordedCall& call) {
  std::string text;
  for (const char* name : {"slot", "object", "key", "baseKey"}) {
    const Value* value = valueNamed(call.in, name);
    const auto* number = value ? std::get_if<std::uint64_t>(&value->held) : nullptr;
    if (number) add(text, std::string{name} + " " + std::to_string(*number));
  }
  const Value* attributes = valueNamed(call.in, "attributes");
  if (const auto* list = attributes ? std::get_if<List>(&attributes->held) : nullptr)
    add(text, typesOf(*list), ": ");
  if (text.size() > kLongestSubject) text = text.substr(0, kLongestSubject) + "...";
  return text;
}

std::string endText(const RecordedEnd& end) {
  std::string text = "The program was ended while no call was under way: ";
  if (end.whileLoading) text = "The module was not loaded to the end: ";
  if (end.call) {
    const std::string subject = subjectText(*end.call);
    text = end.call->function + (subject.empty() ? "" : " (" + subject + ")") + " did not return: ";
  }
  switch (end.how.kind) {
    case BadEnd::Kind::kCrashed: return text + end.how.signal;
    case BadEnd::Kind::kExited: return text + "the module called exit";
    case BadEnd::Kind::kHung: return text + "hung, ended after " + std::to_string(end.how.seconds) + " s";
    case BadEnd::Kind::kInterrupted: break;
  }
  return text + "interrupted by " + end.how.signal;
}

bool isFailure(const RecordedCall& call) noexcept {
  return call.result != CKR_OK && call.result != CKR_ATTRIBUTE_SENSITIVE &&
         call.result != CKR_ATTRIBUTE_TYPE_INVALID && call.result != CKR_CRYPTOKI_ALREADY_INITIALIZED;
}

}  // namespace mirel::recording

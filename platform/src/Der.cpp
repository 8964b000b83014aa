#include "platform/Der.h"

namespace mirel {

using ByteSpan = std::span<const std::uint8_t>;

namespace {

constexpr unsigned kSeveralBytes = 0x1F;  // in the lower bits of a tag: its number follows

constexpr bool hasSeveralBytes(std::uint8_t tag) noexcept { return (tag & kSeveralBytes) == kSeveralBytes; }

}  // namespace

bool DerReader::skipTag() noexcept {
  constexpr std::uint8_t kMore = 0x80;  // another byte of the number follows
  if (rest_.empty()) return false;
  const bool hasNumber = hasSeveralBytes(rest_.front());
  rest_ = rest_.subspan(1);
  if (!hasNumber) return true;

  std::size_t last = 0;
  while (last < rest_.size() && (rest_[last] & kMore) != 0) ++last;
  if (last == rest_.size()) return false;
  const bool isShortest = last == 0 ? rest_.front() >= kSeveralBytes : rest_.front() != kMore;
  rest_ = rest_.subspan(last + 1);
  return isShortest;
}

std::optional<std::size_t> DerReader::readLength() noexcept {
  constexpr std::size_t kLongForm = 0x80;  // from here on the first byte tells how many follow
  if (rest_.empty()) return std::nullopt;
  const std::size_t first = rest_.front();
  rest_ = rest_.subspan(1);
  if (first < kLongForm) return first;

  const std::size_t count = first - kLongForm;
  const bool isIndefinite = count == 0;
  if (isIndefinite || count > sizeof(std::size_t) || count > rest_.size()) return std::nullopt;
  std::size_t length = 0;
  for (const std::uint8_t byte : rest_.first(count)) length = (length << 8U) | byte;
  const bool isShortest = rest_.front() != 0 && length >= kLongForm;
  rest_ = rest_.subspan(count);
  return isShortest ? std::optional{length} : std::nullopt;
}

std::optional<DerValue> DerReader::readAny() noexcept {
  if (rest_.empty()) return std::nullopt;
  const std::uint8_t tag = rest_.front();
  if (!skipTag()) return std::nullopt;
  const auto length = readLength();
  if (!length || *length > rest_.size()) return std::nullopt;
  const ByteSpan content = rest_.first(*length);
  rest_ = rest_.subspan(*length);
  return DerValue{tag, content};
}

std::optional<ByteSpan> DerReader::read(std::uint8_t tag) noexcept {
  if (!isNext(tag) || hasSeveralBytes(tag)) return std::nullopt;
  const auto value = readAny();
  return value ? std::optional{value->content} : std::nullopt;
}

std::optional<ByteSpan> onlyDerValue(ByteSpan der, std::uint8_t tag) noexcept {
  DerReader reader{der};
  const auto content = reader.read(tag);
  return reader.atEnd() ? content : std::nullopt;
}

}  // namespace mirel

#include "platform/SecretText.h"

#include <array>

#include "platform/LockedMemory.h"
#include "platform/Memory.h"
#include "platform/Utf.h"

namespace mirel {

SecretText::SecretText(std::u16string_view units) : isNull_{false} {
  units_.reserve(units.size());
  keepOffDisk(units_.data(), units.size() * sizeof(char16_t));
  units_.assign(units.begin(), units.end());
}

std::shared_ptr<const SecretText> SecretText::fromUtf8(std::span<const std::uint8_t> utf8) {
  auto text = std::make_shared<SecretText>();
  text->isNull_ = false;
  text->units_.reserve(utf8.size());  // there are never more units than bytes, so the block never moves
  keepOffDisk(text->units_.data(), utf8.size() * sizeof(char16_t));
  std::string_view rest{reinterpret_cast<const char*>(utf8.data()), utf8.size()};
  while (!rest.empty()) {
    const DecodedCharacter next = decodedFromUtf8(rest);
    rest.remove_prefix(next.size);
    appendUtf16(text->units_, next.character);
  }
  return text;
}

SecretText::~SecretText() { wipe(units_.data(), units_.size() * sizeof(char16_t)); }

std::size_t SecretText::copyUtf8(std::span<std::uint8_t> out) const noexcept {
  std::size_t written = 0;
  std::u16string_view rest{units_.data(), units_.size()};
  while (!rest.empty() && written < out.size()) {
    const DecodedCharacter next = decodedFromUtf16(rest);
    rest.remove_prefix(next.size);
    EncodedCharacter bytes = encodedAsUtf8(next.character);
    for (std::size_t i = 0; i < bytes.size && written < out.size(); ++i) out[written++] = bytes.bytes[i];
    wipe(bytes.bytes.data(), bytes.bytes.size());
  }
  return written;
}

}  // namespace mirel

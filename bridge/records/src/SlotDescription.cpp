#include "bridge/SlotDescription.h"

#include <algorithm>
#include <span>
#include <type_traits>

namespace mirel {
namespace {

template <typename Unit>
bool beginsWith(std::span<const CK_UTF8CHAR> description, std::basic_string_view<Unit> name) noexcept {
  return name.size() <= description.size() &&
         std::equal(name.begin(), name.end(), description.begin(), [](Unit unit, CK_UTF8CHAR byte) {
           return static_cast<std::make_unsigned_t<Unit>>(unit) == byte;
         });
}

}  // namespace

bool descriptionBeginsWith(const CK_SLOT_INFO& slot, std::u16string_view name) noexcept {
  return beginsWith(slot.slotDescription, name);
}

bool descriptionBeginsWithAscii(const CK_SLOT_INFO& slot, const char* name) noexcept {
  const std::string_view bytes{name ? name : ""};
  // Oddity: the bytes of the name count as signed, those of the description as unsigned, whatever `char` is
  // here. So a byte of 0x80 or above is never equal.
  const bool isAscii =
      std::all_of(bytes.begin(), bytes.end(), [](char c) { return static_cast<signed char>(c) >= 0; });
  return isAscii && beginsWith(slot.slotDescription, bytes);
}

}  // namespace mirel

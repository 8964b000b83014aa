#include "NameList.h"

namespace mirel {
namespace {

constexpr std::size_t kEnough = 160;  // bytes of all names; the last one may go beyond

bool continues(char c) noexcept { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U; }

}  // namespace

std::string shortened(const std::string& name, std::size_t most) {
  std::size_t characters = 0;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (!continues(name[i]) && ++characters > most) return name.substr(0, i) + "...";
  }
  return name;
}

bool NameList::takesMore() const noexcept { return text_.size() < kEnough; }

void NameList::add(std::string_view name) {
  if (count_ > 0) text_ += ", ";
  text_ += name;
  ++count_;
}

std::string NameList::textOf(std::size_t total) const {
  if (total <= count_) return text_;
  return text_ + " and " + std::to_string(total - count_) + " more";
}

}  // namespace mirel

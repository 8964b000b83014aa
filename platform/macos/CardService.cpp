#include "platform/CardService.h"

#include <utility>

#include "../posix/LimitedCardService.h"
#include "../posix/PcscView.h"

namespace mirel {

std::shared_ptr<CardService> cardServiceOf(std::string library, std::chrono::milliseconds limit) {
  return limitedCardService(
      [library = std::move(library)] { return pcsc::View<pcsc::AppleForm>::of(library); }, limit);
}

std::shared_ptr<CardService> systemCardService() {
  return cardServiceOf("/System/Library/Frameworks/PCSC.framework/PCSC", kCardServiceLimit);
}

}  // namespace mirel

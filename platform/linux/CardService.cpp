#include "platform/CardService.h"

#include <utility>

#include "../posix/LimitedCardService.h"
#include "../posix/PcscView.h"
#include "../posix/PcscWatch.h"

namespace mirel {

std::shared_ptr<CardService> cardServiceOf(std::string library, std::chrono::milliseconds limit) {
  return limitedCardService([library] { return pcsc::View<pcsc::LiteForm>::of(library); },
                            [library] { return std::make_unique<pcsc::Watch<pcsc::LiteForm>>(library); },
                            limit);
}

std::shared_ptr<CardService> systemCardService() {
  return cardServiceOf("libpcsclite.so.1", kCardServiceLimit);
}

}  // namespace mirel

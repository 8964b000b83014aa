#include "token/FakePinOperation.h"

#include <gtest/gtest.h>

#include "token/FakeTokenKit.h"

namespace mirel::test {

bool FakePinOperation::init() noexcept {
  calls.emplace_back("init");
  script_->whenPinOperationIsInitialised();
  return !script_->refusesPinOperations;
}

bool FakePinOperation::finishWithError(TKErrorPointer) noexcept {
  ADD_FAILURE() << "the platform's PIN operation was finished";
  return false;
}

void FakePinOperation::setSmartCard(const std::shared_ptr<TKSmartCard>& card) noexcept {
  calls.emplace_back("setSmartCard");
  smartCard_ = card;
}

void FakePinOperation::setAPDUTemplate(const Bytes& command) noexcept {
  calls.emplace_back("setAPDUTemplate");
  APDUTemplate_ = command;
}

void FakePinOperation::setPINFormat(const std::shared_ptr<TKSmartCardPINFormat>& format) noexcept {
  calls.push_back("setPINFormat offset " + std::to_string(format->PINBitOffset()));
  PINFormat_ = format;
}

}  // namespace mirel::test

#include "CardWatch.h"

#include <string>

#include "CodeMeaning.h"
#include "FailureDiary.h"
#include "FixedText.h"
#include "HostToken.h"
#include "bridge/P11Bridge.h"
#include "framework/MirelCTKFramework.h"
#include "host/Display.h"
#include "provider/CryptTKitSProvider.h"

namespace mirel {
namespace {

constexpr const char* kPutBack = "put that card back and run again";

std::shared_ptr<CryptTKitSProvider> providerOf(const std::weak_ptr<HostToken>& watched) {
  const auto token = watched.lock();
  return token ? token->core().sp() : nullptr;
}

std::string quoted(const Text& name) {
  std::string text{"\""};
  return text.append(displayed(name)).append("\"");
}

std::string described(const Text& label, const Text& serialNumber) {
  return quoted(label) + " with serial number " + quoted(serialNumber);
}

/// What the reader holds, found in the way in which the token finds it.
std::optional<FailedCall> readToken(P11Bridge& bridge, const Reader& reader, FailureDiary& diary,
                                    CK_TOKEN_INFO& outToken) {
  diary.clear();
  CK_SLOT_ID slotID = kNoHandle;
  if (const CK_RV rv = bridge.pkcs11_FindSlot(reader.distinctName, &slotID); rv != CKR_OK) {
    return diary.cause().value_or(FailedCall{operationName(BridgeOperation::pkcs11_FindSlot), rv});
  }
  if (slotID != reader.slotID) {
    // The search passes over a slot that cannot be read just now, and may so come to another reader.
    CK_SLOT_INFO slot{};
    if (const CK_RV rv = bridge.inspectSlot(reader.slotID, slot); rv != CKR_OK)
      return FailedCall{"C_GetSlotInfo", rv};
  }
  const CK_RV rv = bridge.inspectToken(slotID, outToken);
  return rv == CKR_OK ? std::nullopt : std::optional{FailedCall{"C_GetTokenInfo", rv}};
}

}  // namespace

bool tellsLess(const Reader& before, const Text& label, const Text& serialNumber) {
  const auto isNoMore = [](const Text& now, const Text& then) { return now.isEmpty() || now == then; };
  const bool isSame = label == before.tokenLabel && serialNumber == before.serialNumber;
  return !isSame && isNoMore(label, before.tokenLabel) && isNoMore(serialNumber, before.serialNumber);
}

Result<void> checkSame(const Reader& before, const Text& label, const Text& serialNumber) {
  if (label == before.tokenLabel && serialNumber == before.serialNumber) return {};
  if (tellsLess(before, label, serialNumber)) {
    return Failure{FailureKind::kCardRefuses,
                   "whether the same card is in the reader " + quoted(before.name) + " is not known",
                   "the card " + described(before.tokenLabel, before.serialNumber) +
                       " was inserted, and now the module gives " + described(label, serialNumber),
                   "run again; where that does not help, put that card back"};
  }
  return Failure{FailureKind::kAnotherCard, "another card is in the reader " + quoted(before.name),
                 "the card " + described(before.tokenLabel, before.serialNumber) + " was inserted, and now " +
                     described(label, serialNumber) + " is there",
                 kPutBack};
}

Failure cardGone(const Text& reader, std::string why) {
  return {FailureKind::kCardGone, "the card is not in the reader " + quoted(reader) + " any more",
          std::move(why), kPutBack};
}

CardWatch::CardWatch(const std::shared_ptr<HostToken>& token, Reader reader)
    : token_{token}, reader_{std::move(reader)} {}

Result<void> CardWatch::look(FailureDiary& diary) {
  if (auto going = goesOn(); !going) return going;
  auto there = lookAtCard(diary);
  if (!there) learnFrom(there.failure());
  return there;
}

void CardWatch::learnFrom(const Failure& failure) {
  const bool ends = failure.kind == FailureKind::kCardGone || failure.kind == FailureKind::kAnotherCard;
  const std::lock_guard lock{mutex_};
  if (ends && goesOn_) goesOn_ = failure;
}

Result<void> CardWatch::goesOn() const {
  const std::lock_guard lock{mutex_};
  return goesOn_;
}

Result<void> CardWatch::lookAtCard(FailureDiary& diary) const {
  const auto provider = providerOf(token_);
  if (!provider) return gone("its token was dropped");
  const std::lock_guard alone{provider->gate()};  // what is looked at, a session of the token may replace
  const auto framework = provider->pCTKFramework();
  const auto bridge = framework ? framework->p11Bridge() : nullptr;
  if (!bridge) return gone("its token was dropped");
  const std::string name = reader_.distinctName.toUtf8();
  const bool changed = framework->IsCardStateChanged(name.c_str());

  CK_TOKEN_INFO token{};
  if (const auto cause = readToken(*bridge, reader_, diary, token)) {
    const Failure because = notLookedAt(*cause);
    const bool isGone =
        because.kind == FailureKind::kCardGone && cause->result != CKR_CRYPTOKI_NOT_INITIALIZED;
    return isGone ? gone(because.why) : because;
  }
  if (auto same = compare(token); !same) return same;

  // What the framework calls a change may be a token without a random number generator, or a name beyond
  // ASCII. Only a session that has ended tells that this card was away.
  const auto record = framework->p11ServiceInfo();
  if (!changed || !record || record->hSession() == kNoHandle || record->hSession() == 0) return {};
  const CK_RV rv = bridge->pkcs11_GetSessionInfo(record->hSession(), nullptr);
  if (rv == CKR_OK) return {};
  const FailedCall cause{"C_GetSessionInfo", rv};
  if (rv == CKR_CRYPTOKI_NOT_INITIALIZED) return notLookedAt(cause);
  const Failure because = failureBecauseOf(
      cause, "the card in the reader " + quoted(reader_.name) + " was taken out and put back",
      FailureKind::kCardRefuses);
  return because.kind == FailureKind::kCardGone
             ? Failure{FailureKind::kCardGone, because.what,
                       "a card that returns is a new one to the system; " + answerText(cause), "run again"}
             : because;
}

Result<void> CardWatch::checkInsertion() {
  const auto provider = providerOf(token_);
  const auto framework = provider ? provider->pCTKFramework() : nullptr;
  const auto record = framework ? framework->p11ServiceInfo() : nullptr;
  if (!record) return {};
  const CK_TOKEN_INFO token = record->tokenInfo();
  if (!reader_.unreadable) return compare(token);
  // The reader could not say before which card it holds.
  reader_.tokenLabel = trimmed(token.label);
  reader_.serialNumber = trimmed(token.serialNumber);
  return {};
}

Result<void> CardWatch::compare(const CK_TOKEN_INFO& token) const {
  return checkSame(reader_, trimmed(token.label), trimmed(token.serialNumber));
}

Failure CardWatch::notLookedAt(const FailedCall& cause) const {
  return failureBecauseOf(cause, "the card in the reader " + quoted(reader_.name) + " cannot be looked at",
                          FailureKind::kCardRefuses);
}

Failure CardWatch::gone(std::string why) const { return cardGone(reader_.name, std::move(why)); }

}  // namespace mirel

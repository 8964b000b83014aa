#include "ReaderFinder.h"

#include <algorithm>
#include <map>
#include <optional>
#include <span>

#include "CodeMeaning.h"
#include "FailureDiary.h"
#include "FixedText.h"
#include "bridge/CardRules.h"
#include "bridge/P11Bridge.h"
#include "bridge/SlotDescription.h"
#include "host/CryptokiNames.h"
#include "host/Display.h"
#include "platform/Log.h"

namespace mirel {
namespace {

constexpr const char* kAskMaker = "ask the maker of the module";

/// The module as the user knows it, fit for a message.
std::string moduleName(const std::string& path, const std::string& givenModule) {
  return printableLine(givenModule.empty() ? path : givenModule);
}

Failure moduleFailure(const FailureDiary& diary, const std::shared_ptr<const std::string>& path,
                      const std::string& givenModule) {
  if (!path) {
    return {FailureKind::kModuleNotLoadable, "there is no home folder to look for the PKCS #11 module in",
            "the user database has no entry for this user", UserStep::kNameHomeOrModule};
  }
  const std::string what = "the PKCS #11 module " + moduleName(*path, givenModule) + " cannot be loaded";
  if (diary.loaderText()) {
    return {FailureKind::kModuleNotLoadable, what, printableLine(*diary.loaderText()),
            givenModule.empty() ? UserStep::kInstallOrNameModule : UserStep::kCheckModuleKind};
  }
  return {FailureKind::kModuleNotLoadable, what, diary.reason().value_or("it gives no function list"),
          kAskMaker};
}

void setUnreadable(Reader& reader, const FailedCall& cause) {
  const std::string place = reader.name.isEmpty() ? "slot " + std::to_string(reader.slotID)
                                                  : "the reader \"" + displayed(reader.name) + "\"";
  reader.unreadable = failureBecauseOf(cause, "the card in " + place + " cannot be read",
                                       FailureKind::kCardEnumerationFailed);
  reader.mayBeReadableLater =
      cause.result != CKR_TOKEN_NOT_RECOGNIZED && cause.result != CKR_TOKEN_NOT_PRESENT;
}

Reader readReader(const P11Bridge& bridge, CK_SLOT_ID slotID, bool withTokenOnly, CK_SLOT_INFO& outSlot) {
  Reader reader;
  reader.slotID = slotID;
  if (const CK_RV rv = bridge.inspectSlot(slotID, outSlot); rv != CKR_OK) {
    setUnreadable(reader, {"C_GetSlotInfo", rv});
    reader.slotFailure = rv;
    return reader;
  }
  reader.name = trimmed(outSlot.slotDescription);
  reader.slotFlags = slotFlagNames(outSlot.flags);
  // A slot that is listed for its token has one, whatever its flags say.
  reader.hasToken = withTokenOnly || (outSlot.flags & CKF_TOKEN_PRESENT) != 0;
  if (!reader.hasToken) return reader;
  CK_TOKEN_INFO token{};
  if (const CK_RV rv = bridge.inspectToken(slotID, token); rv != CKR_OK) {
    setUnreadable(reader, {"C_GetTokenInfo", rv});
    reader.notRecognised = rv == CKR_TOKEN_NOT_RECOGNIZED;
    return reader;
  }
  reader.tokenLabel = trimmed(token.label);
  reader.serialNumber = trimmed(token.serialNumber);
  reader.manufacturer = trimmed(token.manufacturerID);
  reader.model = trimmed(token.model);
  reader.tokenFlags = tokenFlagNames(token.flags);
  reader.instanceID = instanceIDOf(token);
  reader.tokenInitialised = (token.flags & CKF_TOKEN_INITIALIZED) != 0;
  return reader;
}

/// The shortest beginning of description number `index`, from its name on, that no description listed
/// before begins with; null when there is none.
Text distinctName(const std::vector<CK_SLOT_INFO>& slots, std::size_t index, const Text& name) {
  const std::span description{slots[index].slotDescription};
  for (std::size_t length = name.length(); length <= description.size(); ++length) {
    Text start = Text::fromBytes(description.first(length));
    const auto sameStart = [&](const CK_SLOT_INFO& other) {
      return descriptionBeginsWith(other, start.units());
    };
    if (std::none_of(slots.begin(), slots.begin() + static_cast<std::ptrdiff_t>(index), sameStart))
      return start;
  }
  return Text{};
}

/// Those that look alike to the user.
void markSharedLabels(std::vector<Reader>& readers) {
  std::map<std::string, std::size_t> counts;
  for (const Reader& reader : readers) ++counts[displayed(reader.tokenLabel)];
  for (Reader& reader : readers) reader.labelIsShared = counts[displayed(reader.tokenLabel)] > 1;
}

}  // namespace

Result<void> loadModule(P11Bridge& bridge, FailureDiary& diary, const std::string& givenModule) {
  diary.clear();
  if (bridge.pkcs11_Load(Text{})) return {};
  return moduleFailure(diary, bridge.p11dylib(), givenModule);
}

Result<void> startModule(P11Bridge& bridge, const std::string& givenModule, CK_RV& outAnswer) {
  outAnswer = bridge.pkcs11_Initial(nullptr);
  if (outAnswer == CKR_OK || outAnswer == CKR_CRYPTOKI_ALREADY_INITIALIZED) return {};
  const FailedCall cause{"C_Initialize", outAnswer};
  const std::string what =
      "the PKCS #11 module " + moduleName(*bridge.p11dylib(), givenModule) + " does not start";
  if (outAnswer == CKR_ARGUMENTS_BAD) return failureBecauseOf(cause, what, FailureKind::kModuleRefuses);
  return Failure{FailureKind::kModuleRefuses, what, answerText(cause),
                 "check the module's own configuration and the service it needs"};
}

Result<std::vector<Reader>> listReaders(const P11Bridge& bridge, bool withTokenOnly) {
  std::vector<CK_SLOT_ID> slotIDs;
  if (const CK_RV rv = bridge.inspectSlots(withTokenOnly, slotIDs); rv != CKR_OK) {
    return failureBecauseOf({"C_GetSlotList", rv}, "the PKCS #11 module does not list its slots",
                            FailureKind::kModuleRefuses);
  }

  std::vector<Reader> readers;
  std::vector<CK_SLOT_INFO> slots;
  for (const CK_SLOT_ID slotID : slotIDs) {
    readers.push_back(readReader(bridge, slotID, withTokenOnly, slots.emplace_back()));
    readers.back().distinctName = distinctName(slots, slots.size() - 1, readers.back().name);
  }
  markSharedLabels(readers);
  return readers;
}

Result<std::vector<Reader>> findReaders(P11Bridge& bridge, FailureDiary& diary,
                                        const std::string& givenModule, bool withTokenOnly) {
  if (const auto loaded = loadModule(bridge, diary, givenModule); !loaded) return loaded.failure();
  CK_RV answer = CKR_OK;
  if (const auto started = startModule(bridge, givenModule, answer); !started) return started.failure();
  return listReaders(bridge, withTokenOnly);
}

}  // namespace mirel

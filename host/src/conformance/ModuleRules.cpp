#include "conformance/ModuleRules.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <thread>

#include "CodeMeaning.h"
#include "FailureDiary.h"
#include "FixedText.h"
#include "ModuleFacts.h"
#include "ReaderFinder.h"
#include "bridge/CardRules.h"
#include "host/CryptokiNames.h"
#include "host/Display.h"
#include "platform/Log.h"

namespace mirel {
namespace {

using enum RuleID;

/// Nothing where the file may be loaded; else what is wrong with it.
std::optional<std::string> faultOf(const std::optional<ModuleFacts>& facts, bool trusted) {
  if (!facts) return "there is no home folder to look in";
  const std::string name = printableLine(facts->name);
  if (facts->path.empty()) return name + ": " + std::strerror(facts->error);
  if (!facts->noFile.empty()) return name + ": " + facts->noFile;
  if (facts->otherTarget) return printableLine(facts->otherTarget->why);
  if (facts->exposure && !trusted)
    return "somebody else can change it, so it is not loaded: " + printableLine(*facts->exposure);
  return std::nullopt;
}

void testStart(P11Bridge& bridge, RuleResults& results, std::string& outReason) {
  const auto works = [](CK_RV rv) { return rv == CKR_OK || rv == CKR_CRYPTOKI_ALREADY_INITIALIZED; };
  const CK_RV first = bridge.pkcs11_Initial(nullptr);
  const std::string text = answerText({"C_Initialize", first});
  if (!works(first)) {
    results.fail(kInitialise, text);
    outReason = "the module does not start";
    return;
  }
  results.pass(kInitialise, text);
  const CK_RV second = bridge.pkcs11_Initial(nullptr);
  const bool knows = second == CKR_CRYPTOKI_ALREADY_INITIALIZED;
  results.set(kInitialiseAgain, knows ? RuleVerdict::kPass : RuleVerdict::kFail,
              answerText({"C_Initialize", second}));
}

/// Whether the card or its reader failed, which says nothing of what the module can do.
bool isOfCard(CK_RV rv) {
  return rv == CKR_DEVICE_ERROR || rv == CKR_DEVICE_REMOVED || rv == CKR_HOST_MEMORY ||
         rv == CKR_TOKEN_NOT_PRESENT || rv == CKR_TOKEN_NOT_RECOGNIZED;
}

void testThreads(const P11Bridge& bridge, const std::vector<CK_SLOT_ID>& slots, RuleResults& results) {
  std::vector<CK_SLOT_ID> others;
  CK_RV rv = CKR_OK;
  std::thread{[&] { rv = bridge.inspectSlots(false, others); }}.join();
  if (rv != CKR_OK) {
    return results.set(kThreads, isOfCard(rv) ? RuleVerdict::kUnknown : RuleVerdict::kFail,
                       "in a second thread " + answerText({"C_GetSlotList", rv}));
  }
  if (others != slots)
    return results.unknown(kThreads, "a second thread got another list: a reader may have come or gone");
  results.pass(kThreads, "a second thread gets the same list of slots");
}

/// Whether a zero byte is in a text of a Cryptoki structure.
template <std::size_t Size>
bool hasZero(const CK_UTF8CHAR (&text)[Size]) {
  return std::find(std::begin(text), std::end(text), CK_UTF8CHAR{0}) != std::end(text);
}

/// Answers why a slot could not be read; empty: all were.
std::string testSlotNames(const P11Bridge& bridge, const std::vector<CK_SLOT_ID>& slots,
                          RuleResults& results) {
  std::vector<std::string> names;
  std::string bad;
  for (const CK_SLOT_ID slotID : slots) {
    CK_SLOT_INFO info{};
    if (const CK_RV rv = bridge.inspectSlot(slotID, info); rv != CKR_OK) {
      std::string text = answerText({"C_GetSlotInfo", rv});
      results.unknown(kSlotNames, text);
      results.unknown(kPadding, text);
      return text;
    }
    const std::span description{info.slotDescription};
    const std::string name{description.begin(), description.end()};
    const std::string shown =
        "slot " + std::to_string(slotID) + " \"" + displayed(trimmed(info.slotDescription)) + "\"";
    if (bad.empty() && std::any_of(description.begin(), description.end(), [](auto c) { return c > 0x7E; }))
      bad = shown + " is not ASCII";
    if (bad.empty() && std::find(names.begin(), names.end(), name) != names.end())
      bad = shown + " has the name of another slot";
    names.push_back(name);
    if (!results.has(kPadding) && (hasZero(info.slotDescription) || hasZero(info.manufacturerID)))
      results.fail(kPadding,
                   "a zero byte is in slotDescription or manufacturerID of slot " + std::to_string(slotID));
  }
  if (!bad.empty()) {
    results.fail(kSlotNames, bad);
  } else if (!slots.empty()) {
    results.pass(kSlotNames, std::to_string(slots.size()) + " slots were read");
  }
  return {};
}

/// False where no card can be looked for.
bool testSlots(const P11Bridge& bridge, RuleResults& results, Obstacle& outObstacle) {
  std::vector<CK_SLOT_ID> slots;
  if (const CK_RV rv = bridge.inspectSlots(false, slots); rv != CKR_OK) {
    outObstacle.reason = "the module does not list its slots";
    results.fail(kNumTokens, answerText({"C_GetSlotList", rv}));
    return false;
  }
  testThreads(bridge, slots, results);
  const std::string unread = testSlotNames(bridge, slots, results);
  std::vector<CK_SLOT_ID> withToken;
  if (const CK_RV rv = bridge.inspectSlots(true, withToken); rv != CKR_OK) {
    outObstacle.reason = "the module does not list its slots with a token";
    results.fail(kNumTokens, answerText({"C_GetSlotList", rv}));
    return false;
  }
  const std::string count =
      std::to_string(withToken.size()) + " of " + std::to_string(slots.size()) + " slots hold a token";
  if (withToken.empty()) outObstacle.noCard = count;
  if (withToken.empty() && !unread.empty()) {  // that one may hold one, which another program uses
    outObstacle.reason = "no card can be read";
    results.unknown(kNumTokens, unread);
    return false;
  }
  const bool isGood = !withToken.empty() && withToken.size() <= kAnnouncedSlots;
  results.set(kNumTokens, isGood ? RuleVerdict::kPass : RuleVerdict::kFail, count);
  if (withToken.empty()) outObstacle.reason = "there is no card";
  return !withToken.empty();
}

}  // namespace

std::unique_ptr<P11Bridge> testModule(PlatformServices& services, const ModuleChoice& choice,
                                      RuleResults& results, Obstacle& outObstacle) {
  results.skip(kModuleOnMac, "that shows on macOS only, in the sandbox: see docs/first-mac.md");
  const auto facts = factsOfModule(services, choice);
  outObstacle.reason = "the module is not loaded";
  if (const auto fault = faultOf(facts, choice.trusted)) {
    results.fail(kModulePlace, *fault);
    return nullptr;
  }
  const std::string name = printableLine(facts->name);
  if (const auto chosen = chooseModule(services, choice); !chosen) {
    results.fail(kModulePlace, printableLine(chosen.failure().why));
    return nullptr;
  }
  const auto diary = std::make_shared<FailureDiary>(services.observer);
  PlatformServices own = services;
  own.loader = loaderWithDiary(own.loader, diary);
  own.observer = diary;
  auto bridge = std::make_unique<P11Bridge>(own);
  const auto loaded = loadModule(*bridge, *diary, facts->name);
  if (!loaded && !bridge->phP11Module()) {
    results.fail(kModulePlace, printableLine(loaded.failure().why));
    return nullptr;
  }
  if (choice.path) {
    results.skip(kModulePlace,
                 name + " was named and can be loaded; the place in the home was not looked at");
  } else {
    results.pass(kModulePlace, name);
  }
  if (!loaded) {
    results.fail(kEntryPoint, printableLine(loaded.failure().why));
    return nullptr;
  }
  const CK_VERSION version = bridge->listVersion();
  results.pass(kEntryPoint, "a function list of version " + std::to_string(version.major) + "." +
                                std::to_string(version.minor));

  std::string missing;
  for (const char* function : bridge->missingEntries())
    missing += (missing.empty() ? "" : ", ") + std::string{function};
  if (missing.empty()) {
    results.pass(kFunctions, "none is missing in the list");
  } else {
    results.fail(kFunctions, "the list lacks " + missing);
  }
  outObstacle.reason.clear();
  testStart(*bridge, results, outObstacle.reason);
  if (!outObstacle.reason.empty() || !testSlots(*bridge, results, outObstacle)) return nullptr;
  return bridge;
}

void testSlotOfCard(const P11Bridge& bridge, CK_SLOT_ID slotID, RuleResults& results) {
  CK_SESSION_HANDLE first = 0;
  CK_SESSION_HANDLE second = 0;
  CK_RV rv = bridge.openInspection(slotID, first);
  if (rv == CKR_OK) {
    rv = bridge.openInspection(slotID, second);
    if (rv == CKR_OK) bridge.closeInspection(second);
    bridge.closeInspection(first);
  }
  if (rv != CKR_OK) {
    results.set(kSessions, isOfCard(rv) ? RuleVerdict::kUnknown : RuleVerdict::kFail,
                answerText({"C_OpenSession", rv}));
  } else if (first == second) {
    results.fail(kSessions, "two sessions have one handle");
  } else {
    results.pass(kSessions, "two were open at the same time");
  }

  CK_TOKEN_INFO token{};
  if (rv = bridge.inspectToken(slotID, token); rv != CKR_OK) {
    const std::string text = answerText({"C_GetTokenInfo", rv});
    if (!results.has(kPadding)) results.unknown(kPadding, text);
    for (const RuleID rule : {kInstanceID, kPinLen, kPinEntry, kPinUnchanged}) results.unknown(rule, text);
    return;
  }
  if (!results.has(kPadding)) {
    if (hasZero(token.label) || hasZero(token.manufacturerID) || hasZero(token.model) ||
        hasZero(token.serialNumber)) {
      results.fail(kPadding, "a zero byte is in a text of the token's information");
    } else {
      results.pass(kPadding, "no zero byte in the texts of the slots and the token");
    }
  }
  if (trimmed(token.label).isEmpty() && trimmed(token.serialNumber).isEmpty())
    results.fail(kInstanceID, "label and serial number are empty");
  const bool pad = (token.flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
  results.set(kPinEntry, pad ? RuleVerdict::kFail : RuleVerdict::kPass,
              pad ? "the flags have PROTECTED_AUTHENTICATION_PATH" : "the flags name no PIN pad");
  const bool isToBeChanged = (token.flags & CKF_USER_PIN_TO_BE_CHANGED) != 0;
  results.set(kPinUnchanged, isToBeChanged ? RuleVerdict::kWarn : RuleVerdict::kPass,
              isToBeChanged ? std::string{entryOf(FindingID::kPinToBeChanged).code} +
                                  " the flags have USER_PIN_TO_BE_CHANGED"
                            : std::string{"the flags have no USER_PIN_TO_BE_CHANGED"});
  const bool isLong = token.ulMinPinLen != CK_UNAVAILABLE_INFORMATION && token.ulMinPinLen > kMaxPinLen;
  results.set(kPinLen, isLong ? RuleVerdict::kFail : RuleVerdict::kPass,
              token.ulMinPinLen == CK_UNAVAILABLE_INFORMATION
                  ? std::string{"the token names no shortest length"}
                  : "the shortest PIN has " + std::to_string(token.ulMinPinLen) + " characters");
}

}  // namespace mirel

#pragma once

/// What the scripted module does with slots, sessions and objects.

#include <algorithm>
#include <cstring>
#include <map>

#include "module/Behaviour.h"

namespace mirel::test {

inline constexpr CK_OBJECT_HANDLE kMadeUpHandle = 999;

/// Attributes to be read: types and the room for each.
inline std::string describedRoom(const CK_ATTRIBUTE* attributes, CK_ULONG count) {
  if (!attributes) return "null, " + described(count);
  std::vector<std::string> parts;
  for (CK_ULONG i = 0; i < count; ++i) {
    parts.push_back(attributeName(attributes[i].type) + (attributes[i].pValue ? " room " : " null ") +
                    described(attributes[i].ulValueLen));
  }
  return "[" + commaJoined(parts) + "]";
}

/// CKR_OK when the module is initialised and has that slot, which is then in `outSlot`.
inline CK_RV findSlot(CK_SLOT_ID id, Slot*& outSlot) {
  if (!theScript().isInitialised()) return CKR_CRYPTOKI_NOT_INITIALIZED;
  outSlot = theScript().findSlot(id);
  return outSlot ? CKR_OK : CKR_SLOT_ID_INVALID;
}

/// Private objects can be seen only after the user's login.
inline bool isVisible(const Card& card, const Object& object) {
  return !card.privateObjectsNeedLogin || card.loggedIn || !object.isPrivate();
}

inline bool matches(const Object& object, const CK_ATTRIBUTE& wanted) {
  const auto found = object.attributes.find(wanted.type);
  if (found == object.attributes.end() || object.sensitive.contains(wanted.type)) return false;
  const Value& value = found->second;
  if (value.size() != wanted.ulValueLen) return false;
  return value.empty() || std::memcmp(value.data(), wanted.pValue, value.size()) == 0;
}

/// The claim that a script makes about the n-th read of an attribute; null when it makes none.
template <typename Claim>
const Claim* claimFor(const std::map<CK_ATTRIBUTE_TYPE, std::vector<Claim>>& claims, CK_ATTRIBUTE_TYPE type,
                      std::size_t n) {
  const auto found = claims.find(type);
  if (found == claims.end() || found->second.empty()) return nullptr;
  return &found->second[std::min(n, found->second.size() - 1)];
}

inline CK_RV answerClaim(CK_ATTRIBUTE& out, const Value& value, CK_ULONG claimed) {
  if (out.pValue && claimed != CK_UNAVAILABLE_INFORMATION) {
    const CK_ULONG written = std::min(claimed, out.ulValueLen);
    const CK_ULONG real = std::min<CK_ULONG>(written, value.size());
    auto* const room = static_cast<CK_BYTE*>(out.pValue);
    std::copy_n(value.begin(), real, room);
    std::fill_n(room + real, written - real, kFiller);
  }
  out.ulValueLen = claimed;
  return CKR_OK;
}

/// PKCS #11 v2.40, section 5.7 (C_GetAttributeValue), for one attribute.
inline CK_RV readAttribute(const Object& object, CK_ATTRIBUTE& out) {
  const Deviations& deviations = theScript().deviations;
  const std::size_t n = theScript().countRead(out.type);
  const auto found = object.attributes.find(out.type);
  const Value stored = found == object.attributes.end() ? Value{} : found->second;
  const auto* const turn = claimFor(deviations.valuesInTurn, out.type, n);
  const Value& value = turn ? *turn : stored;
  const auto* const claim = claimFor(deviations.claimedLengths, out.type, n);
  if (claim && *claim) return answerClaim(out, value, **claim);

  if (object.sensitive.contains(out.type)) {
    out.ulValueLen = CK_UNAVAILABLE_INFORMATION;
    return CKR_ATTRIBUTE_SENSITIVE;
  }
  if (!turn && found == object.attributes.end()) {
    out.ulValueLen = CK_UNAVAILABLE_INFORMATION;
    return CKR_ATTRIBUTE_TYPE_INVALID;
  }
  if (out.pValue && out.ulValueLen < value.size()) {
    out.ulValueLen = CK_UNAVAILABLE_INFORMATION;
    return CKR_BUFFER_TOO_SMALL;
  }
  if (out.pValue) std::copy(value.begin(), value.end(), static_cast<CK_BYTE*>(out.pValue));
  out.ulValueLen = value.size();
  return CKR_OK;
}

inline CK_FLAGS pinFlags(const Card& card) {
  if (card.triesLeft == 0) return CKF_USER_PIN_LOCKED;
  if (card.triesLeft == 1) return CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_COUNT_LOW;
  return card.triesLeft == 2 ? CKF_USER_PIN_COUNT_LOW : 0;
}

// ---- The module itself ----

template <>
inline CK_RV Behaviour<&List::C_Initialize>::call(CK_VOID_PTR) {
  if (theScript().isInitialised()) return CKR_CRYPTOKI_ALREADY_INITIALIZED;
  theScript().setInitialised(true);
  return CKR_OK;
}

template <>
inline CK_RV Behaviour<&List::C_Finalize>::call(CK_VOID_PTR reserved) {
  if (!theScript().isInitialised()) return CKR_CRYPTOKI_NOT_INITIALIZED;
  if (reserved) return CKR_ARGUMENTS_BAD;
  for (const auto& [id, slot] : theScript().slots()) theScript().closeSessionsOf(id);
  theScript().setInitialised(false);
  return CKR_OK;
}

template <>
inline CK_RV Behaviour<&List::C_GetInfo>::call(CK_INFO_PTR info) {
  if (!theScript().isInitialised()) return CKR_CRYPTOKI_NOT_INITIALIZED;
  if (!info) return CKR_ARGUMENTS_BAD;
  info->cryptokiVersion = {2, 40};
  setField(info->manufacturerID, "Scripted modules");
  info->flags = 0;
  setField(info->libraryDescription, "Plays a script");
  info->libraryVersion = {1, 7};
  return CKR_OK;
}

// ---- Slots and tokens ----

template <>
inline std::string Behaviour<&List::C_GetSlotList>::arguments(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR list,
                                                              CK_ULONG_PTR count) {
  return commaJoined({described(CK_ULONG{tokenPresent}), describedPointer(list, "list"),
                      count ? described(*count) : "null"});
}

template <>
inline CK_RV Behaviour<&List::C_GetSlotList>::call(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR list,
                                                   CK_ULONG_PTR count) {
  if (!theScript().isInitialised()) return CKR_CRYPTOKI_NOT_INITIALIZED;
  if (!count) return CKR_ARGUMENTS_BAD;
  std::vector<CK_SLOT_ID> slots;
  for (const auto& [id, slot] : theScript().slots()) {
    if (slot.card || tokenPresent == CK_FALSE) slots.push_back(id);
  }
  const Deviations& deviations = theScript().deviations;
  if (!list) {
    *count = deviations.slotCountOnQuery.value_or(slots.size());
    return CKR_OK;
  }
  if (deviations.slotCountOnList) {
    std::copy_n(slots.begin(), std::min<CK_ULONG>(*count, slots.size()), list);
    *count = *deviations.slotCountOnList;
    return CKR_OK;
  }
  const bool fits = slots.size() <= *count;
  *count = slots.size();
  if (!fits) return CKR_BUFFER_TOO_SMALL;
  std::copy(slots.begin(), slots.end(), list);
  return CKR_OK;
}

template <>
inline CK_RV Behaviour<&List::C_GetSlotInfo>::call(CK_SLOT_ID id, CK_SLOT_INFO_PTR info) {
  Slot* slot = nullptr;
  if (const CK_RV rv = findSlot(id, slot); rv != CKR_OK) return rv;
  if (!info) return CKR_ARGUMENTS_BAD;
  *info = slot->info;
  if (slot->card) info->flags |= CKF_TOKEN_PRESENT;
  return CKR_OK;
}

template <>
inline CK_RV Behaviour<&List::C_GetTokenInfo>::call(CK_SLOT_ID id, CK_TOKEN_INFO_PTR info) {
  Slot* slot = nullptr;
  if (const CK_RV rv = findSlot(id, slot); rv != CKR_OK) return rv;
  if (!slot->card) return CKR_TOKEN_NOT_PRESENT;
  if (!info) return CKR_ARGUMENTS_BAD;
  *info = slot->card->info;
  info->flags |= pinFlags(*slot->card);
  return CKR_OK;
}

// ---- Sessions ----

template <>
inline CK_RV Behaviour<&List::C_OpenSession>::call(CK_SLOT_ID id, CK_FLAGS flags, CK_VOID_PTR, CK_NOTIFY,
                                                   CK_SESSION_HANDLE_PTR session) {
  Slot* slot = nullptr;
  if (const CK_RV rv = findSlot(id, slot); rv != CKR_OK) return rv;
  if (!slot->card) return CKR_TOKEN_NOT_PRESENT;
  if ((flags & CKF_SERIAL_SESSION) == 0) return CKR_SESSION_PARALLEL_NOT_SUPPORTED;
  if (!session) return CKR_ARGUMENTS_BAD;
  *session = theScript().openSession(id, flags);
  return CKR_OK;
}

template <>
inline CK_RV Behaviour<&List::C_CloseSession>::call(CK_SESSION_HANDLE handle) {
  Session* session = nullptr;
  if (const CK_RV rv = findSession(handle, session); rv != CKR_OK) return rv;
  theScript().closeSession(handle);
  return CKR_OK;
}

template <>
inline CK_RV Behaviour<&List::C_GetSessionInfo>::call(CK_SESSION_HANDLE handle, CK_SESSION_INFO_PTR info) {
  Session* session = nullptr;
  if (const CK_RV rv = findSession(handle, session); rv != CKR_OK) return rv;
  if (!info) return CKR_ARGUMENTS_BAD;
  const bool readWrite = (session->flags & CKF_RW_SESSION) != 0;
  const bool loggedIn = theScript().card(session->slot).loggedIn;
  const CK_STATE outState = readWrite ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
  const CK_STATE inState = readWrite ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS;
  const bool tellTries = theScript().deviations.triesLeftAsDeviceError && !loggedIn;
  const CK_ULONG deviceError = tellTries ? theScript().card(session->slot).triesLeft : 0;
  *info = {session->slot, loggedIn ? inState : outState, session->flags, deviceError};
  return CKR_OK;
}

template <>
inline std::string Behaviour<&List::C_Login>::arguments(CK_SESSION_HANDLE session, CK_USER_TYPE user,
                                                        CK_UTF8CHAR_PTR pin, CK_ULONG pinLen) {
  return commaJoined({described(session), described(user), describedValue(pin, pinLen)});
}

template <>
inline CK_RV Behaviour<&List::C_Login>::call(CK_SESSION_HANDLE handle, CK_USER_TYPE user, CK_UTF8CHAR_PTR pin,
                                             CK_ULONG pinLen) {
  Session* session = nullptr;
  if (const CK_RV rv = findSession(handle, session); rv != CKR_OK) return rv;
  if (user != CKU_USER) return CKR_USER_TYPE_INVALID;
  if (!pin) return CKR_ARGUMENTS_BAD;
  Card& card = theScript().card(session->slot);
  if (card.loggedIn) return CKR_USER_ALREADY_LOGGED_IN;
  if (card.triesLeft == 0) return CKR_PIN_LOCKED;
  const Value expected = bytesOf(card.pin);
  if (!std::equal(expected.begin(), expected.end(), pin, pin + pinLen)) {
    --card.triesLeft;
    return CKR_PIN_INCORRECT;
  }
  card.triesLeft = 3;
  card.loggedIn = true;
  return CKR_OK;
}

template <>
inline CK_RV Behaviour<&List::C_Logout>::call(CK_SESSION_HANDLE handle) {
  Session* session = nullptr;
  if (const CK_RV rv = findSession(handle, session); rv != CKR_OK) return rv;
  Card& card = theScript().card(session->slot);
  if (!card.loggedIn) return CKR_USER_NOT_LOGGED_IN;
  card.loggedIn = false;
  return CKR_OK;
}

// ---- Objects ----

template <>
inline std::string Behaviour<&List::C_GetAttributeValue>::arguments(CK_SESSION_HANDLE session,
                                                                    CK_OBJECT_HANDLE object,
                                                                    CK_ATTRIBUTE_PTR attributes,
                                                                    CK_ULONG count) {
  return commaJoined({described(session), described(object), describedRoom(attributes, count)});
}

template <>
inline CK_RV Behaviour<&List::C_GetAttributeValue>::call(CK_SESSION_HANDLE handle, CK_OBJECT_HANDLE object,
                                                         CK_ATTRIBUTE_PTR attributes, CK_ULONG count) {
  Session* session = nullptr;
  if (const CK_RV rv = findSession(handle, session); rv != CKR_OK) return rv;
  if (!attributes) return CKR_ARGUMENTS_BAD;
  const Card& card = theScript().card(session->slot);
  const auto found = card.objects.find(object);
  if (found == card.objects.end() || !isVisible(card, found->second)) return CKR_OBJECT_HANDLE_INVALID;
  CK_RV result = CKR_OK;
  for (CK_ULONG i = 0; i < count; ++i) {
    const CK_RV rv = readAttribute(found->second, attributes[i]);
    if (result == CKR_OK) result = rv;
  }
  return result;
}

template <>
inline std::string Behaviour<&List::C_FindObjectsInit>::arguments(CK_SESSION_HANDLE session,
                                                                  CK_ATTRIBUTE_PTR attributes,
                                                                  CK_ULONG count) {
  return commaJoined({described(session), describedTemplate(attributes, count)});
}

template <>
inline CK_RV Behaviour<&List::C_FindObjectsInit>::call(CK_SESSION_HANDLE handle, CK_ATTRIBUTE_PTR attributes,
                                                       CK_ULONG count) {
  Session* session = nullptr;
  if (const CK_RV rv = findSession(handle, session); rv != CKR_OK) return rv;
  if (session->search) return CKR_OPERATION_ACTIVE;
  if (!attributes && count > 0) return CKR_ARGUMENTS_BAD;
  Session::Search search;
  const Card& card = theScript().card(session->slot);
  for (const auto& entry : card.objects) {
    const auto& content = entry.second;
    const bool fits = std::all_of(attributes, attributes + count,
                                  [&](const auto& wanted) { return matches(content, wanted); });
    if (fits && isVisible(card, content)) search.found.push_back(entry.first);
  }
  session->search = std::move(search);
  return CKR_OK;
}

template <>
inline CK_RV Behaviour<&List::C_FindObjects>::call(CK_SESSION_HANDLE handle, CK_OBJECT_HANDLE_PTR objects,
                                                   CK_ULONG maxCount, CK_ULONG_PTR count) {
  Session* session = nullptr;
  if (const CK_RV rv = findSession(handle, session); rv != CKR_OK) return rv;
  if (!session->search) return CKR_OPERATION_NOT_INITIALIZED;
  if (!objects || !count) return CKR_ARGUMENTS_BAD;
  auto& [found, next] = *session->search;
  const Deviations& deviations = theScript().deviations;
  if (deviations.endlessSearches && found.empty()) found.push_back(kMadeUpHandle);
  CK_ULONG given = 0;
  while (given < maxCount) {
    if (deviations.endlessSearches) next %= found.size();
    if (next >= found.size()) break;
    objects[given++] = found[next++];
  }
  *count = given > 0 ? deviations.foundPerCall.value_or(given) : 0;
  return CKR_OK;
}

template <>
inline CK_RV Behaviour<&List::C_FindObjectsFinal>::call(CK_SESSION_HANDLE handle) {
  Session* session = nullptr;
  if (const CK_RV rv = findSession(handle, session); rv != CKR_OK) return rv;
  if (!session->search) return CKR_OPERATION_NOT_INITIALIZED;
  session->search.reset();
  return CKR_OK;
}

}  // namespace mirel::test

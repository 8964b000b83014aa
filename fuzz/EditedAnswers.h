#pragma once

/// What a function of a module answers instead of what it would, as the input of a fuzz target says.

#include <algorithm>
#include <iterator>

#include "Input.h"
#include "module/PrivateKeyBehaviour.h"
#include "module/SessionBehaviour.h"

namespace mirel::fuzz {

using test::Behaviour;
using test::FunctionType;
using test::List;
using test::Value;

inline CK_RV codeFrom(Input& input) {
  constexpr CK_RV kCodes[] = {CKR_DEVICE_ERROR,
                              CKR_DEVICE_REMOVED,
                              CKR_TOKEN_NOT_PRESENT,
                              CKR_TOKEN_NOT_RECOGNIZED,
                              CKR_SESSION_HANDLE_INVALID,
                              CKR_SESSION_CLOSED,
                              CKR_SESSION_COUNT,
                              CKR_USER_NOT_LOGGED_IN,
                              CKR_USER_ALREADY_LOGGED_IN,
                              CKR_PIN_INCORRECT,
                              CKR_PIN_LOCKED,
                              CKR_PIN_LEN_RANGE,
                              CKR_GENERAL_ERROR,
                              CKR_FUNCTION_FAILED,
                              CKR_HOST_MEMORY,
                              CKR_DEVICE_MEMORY,
                              CKR_BUFFER_TOO_SMALL,
                              CKR_ATTRIBUTE_TYPE_INVALID,
                              CKR_ATTRIBUTE_SENSITIVE,
                              CKR_OBJECT_HANDLE_INVALID,
                              CKR_CRYPTOKI_NOT_INITIALIZED,
                              CKR_CRYPTOKI_ALREADY_INITIALIZED,
                              CKR_FUNCTION_NOT_SUPPORTED,
                              CKR_ARGUMENTS_BAD,
                              CKR_OPERATION_ACTIVE,
                              CKR_OPERATION_NOT_INITIALIZED,
                              CKR_DATA_LEN_RANGE,
                              CKR_ENCRYPTED_DATA_INVALID,
                              CKR_MECHANISM_INVALID,
                              CKR_KEY_HANDLE_INVALID,
                              CKR_SLOT_ID_INVALID};
  const std::size_t which = input.byte();
  return which < std::size(kCodes) ? kCodes[which] : static_cast<CK_RV>(input.number());
}

template <std::size_t Size>
void editField(Input& input, CK_BYTE (&field)[Size]) {
  const Value text = input.bytes(Size);
  std::copy(text.begin(), text.end(), field);
}

inline void editToken(Input& input, CK_TOKEN_INFO& info) {
  switch (input.below(8)) {
    case 0: editField(input, info.label); break;
    case 1: editField(input, info.serialNumber); break;
    case 2: editField(input, info.manufacturerID); break;
    case 3: editField(input, info.model); break;
    case 4: info.ulMaxPinLen = input.number(); break;
    case 5: info.ulMinPinLen = input.number(); break;
    default: info.flags = input.number() << input.below(32); break;
  }
}

/// What the function answers instead of what it has done.
template <auto Function, typename Type = FunctionType<Function>>
struct Edit;

/// Most have nothing to be edited.
template <auto Function, typename... Args>
struct Edit<Function, CK_RV (*)(Args...)> {
  static CK_RV call(Input&, Args... args) { return Behaviour<Function>::call(args...); }
};

template <>
struct Edit<&List::C_GetSlotList> {
  static CK_RV call(Input& input, CK_BBOOL present, CK_SLOT_ID_PTR list, CK_ULONG_PTR count) {
    const CK_ULONG room = count ? *count : 0;
    const CK_RV rv = Behaviour<&List::C_GetSlotList>::call(present, list, count);
    if (!count) return rv;
    if (list && room > 0 && input.flag()) {
      list[input.byte() % room] = input.number();
      return rv;
    }
    *count = input.number();
    return CKR_OK;
  }
};

template <>
struct Edit<&List::C_GetSlotInfo> {
  static CK_RV call(Input& input, CK_SLOT_ID slot, CK_SLOT_INFO_PTR info) {
    const CK_RV rv = Behaviour<&List::C_GetSlotInfo>::call(slot, info);
    if (!info) return rv;
    if (input.flag()) {
      info->flags = input.number();
    } else {
      editField(input, info->slotDescription);
    }
    return CKR_OK;
  }
};

template <>
struct Edit<&List::C_GetTokenInfo> {
  static CK_RV call(Input& input, CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info) {
    const CK_RV rv = Behaviour<&List::C_GetTokenInfo>::call(slot, info);
    if (!info) return rv;
    editToken(input, *info);
    return CKR_OK;
  }
};

template <>
struct Edit<&List::C_OpenSession> {
  static CK_RV call(Input& input, CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR application, CK_NOTIFY notify,
                    CK_SESSION_HANDLE_PTR session) {
    const CK_RV rv = Behaviour<&List::C_OpenSession>::call(slot, flags, application, notify, session);
    if (!session) return rv;
    *session = input.number();
    return CKR_OK;
  }
};

template <>
struct Edit<&List::C_GetSessionInfo> {
  static CK_RV call(Input& input, CK_SESSION_HANDLE session, CK_SESSION_INFO_PTR info) {
    const CK_RV rv = Behaviour<&List::C_GetSessionInfo>::call(session, info);
    if (!info) return rv;
    CK_ULONG* const fields[] = {&info->slotID, &info->state, &info->flags, &info->ulDeviceError};
    *fields[input.below(std::size(fields))] = input.number();
    return CKR_OK;
  }
};

template <>
struct Edit<&List::C_FindObjects> {
  static CK_RV call(Input& input, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG most,
                    CK_ULONG_PTR count) {
    const CK_RV rv = Behaviour<&List::C_FindObjects>::call(session, objects, most, count);
    if (!objects || !count || most == 0) return rv;
    if (input.flag()) {
      *count = input.number();
    } else {
      objects[0] = input.number();
      *count = 1;
    }
    return CKR_OK;
  }
};

template <>
struct Edit<&List::C_GetAttributeValue> {
  static CK_RV call(Input& input, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                    CK_ATTRIBUTE_PTR attributes, CK_ULONG count) {
    if (!attributes || count == 0) {
      return Behaviour<&List::C_GetAttributeValue>::call(session, object, attributes, count);
    }
    const std::size_t which = input.byte() % count;
    CK_ATTRIBUTE& entry = attributes[which];
    auto* const buffer = static_cast<CK_BYTE*>(entry.pValue);
    const CK_ULONG room = buffer ? entry.ulValueLen : 0;
    const CK_RV rv = Behaviour<&List::C_GetAttributeValue>::call(session, object, attributes, count);
    switch (input.below(8)) {
      case 0: entry.type = input.number(); break;
      case 1: entry.pValue = nullptr; break;
      case 2: entry.pValue = reinterpret_cast<void*>(input.number()); break;
      case 3: return rv == CKR_OK ? codeFrom(input) : CKR_OK;
      case 4:
      case 5: {
        const Value value = input.bytes(room);
        std::copy(value.begin(), value.end(), buffer);
        entry.ulValueLen = value.size();
        break;
      }
      default:
        entry.ulValueLen = input.number();
        if (buffer) std::fill_n(buffer, std::min(entry.ulValueLen, room), test::kFiller);
        break;
    }
    return CKR_OK;
  }
};

/// C_Sign and C_Decrypt.
template <auto Function>
struct EditResult {
  static CK_RV call(Input& input, CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLen,
                    CK_BYTE_PTR output, CK_ULONG_PTR len) {
    const CK_ULONG room = len ? *len : 0;
    const CK_RV rv = Behaviour<Function>::call(session, data, dataLen, output, len);
    if (!len) return rv;
    if (output && input.flag()) {
      const Value made = input.bytes(room);
      std::copy(made.begin(), made.end(), output);
      *len = made.size();
    } else {
      *len = input.number();
    }
    return input.flag() ? rv : CKR_OK;
  }
};
template <>
struct Edit<&List::C_Sign> : EditResult<&List::C_Sign> {};
template <>
struct Edit<&List::C_Decrypt> : EditResult<&List::C_Decrypt> {};

template <>
struct Edit<&List::C_DeriveKey> {
  static CK_RV call(Input& input, CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism,
                    CK_OBJECT_HANDLE base, CK_ATTRIBUTE_PTR attributes, CK_ULONG count,
                    CK_OBJECT_HANDLE_PTR key) {
    const CK_RV rv = Behaviour<&List::C_DeriveKey>::call(session, mechanism, base, attributes, count, key);
    if (!key) return rv;
    *key = input.number();
    return CKR_OK;
  }
};

}  // namespace mirel::fuzz

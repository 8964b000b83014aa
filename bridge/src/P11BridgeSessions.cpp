#include "CryptokiCall.h"

namespace mirel {

/// Gives back a session that no record has ever held. That cannot end a login: no login is made in it,
/// and one that is already there was made in another session, which is still open (a login ends with the
/// application's last session on the token; PKCS #11, section 5.6). A module that hands out the handle of
/// the record's own session once more keeps it. Nothing can be done about a failure, so it is ignored.
void P11Bridge::closeUnusedSession(CK_SESSION_HANDLE session,
                                   const std::shared_ptr<PKCS11_SERVICE_INFO>& record) const noexcept {
  if (session == kNoHandle || (record && record->hSession() == session)) return;
  (void)call<&CK_FUNCTION_LIST::C_CloseSession>(session);
}

CK_RV P11Bridge::pkcs11_OpenReadOnlySession(CK_SLOT_ID slotID,
                                            std::shared_ptr<PKCS11_SERVICE_INFO>* ioRecord) noexcept {
  return operation(BridgeOperation::pkcs11_OpenReadOnlySession, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (slotID == kNoHandle || !ioRecord) return CKR_ARGUMENTS_BAD;

    CK_SLOT_INFO slotInfo{};
    if (CK_RV rv = call<&CK_FUNCTION_LIST::C_GetSlotInfo>(slotID, &slotInfo); rv != CKR_OK) return rv;
    CK_SESSION_HANDLE session = kNoHandle;
    if (CK_RV rv =
            call<&CK_FUNCTION_LIST::C_OpenSession>(slotID, CKF_SERIAL_SESSION, nullptr, nullptr, &session);
        rv != CKR_OK) {
      return rv;
    }
    CK_SESSION_INFO sessionInfo{};
    CK_TOKEN_INFO tokenInfo{};
    CK_RV rv = call<&CK_FUNCTION_LIST::C_GetSessionInfo>(session, &sessionInfo);
    if (rv == CKR_OK) rv = call<&CK_FUNCTION_LIST::C_GetTokenInfo>(slotID, &tokenInfo);
    if (rv != CKR_OK) {
      closeUnusedSession(session, *ioRecord);
      return rv;
    }

    if (*ioRecord) {
      // Oddity: a record that exists already keeps its session; only its information is replaced, by
      // that of the session just opened, which nobody can use any more.
      (*ioRecord)->setHSessionInfo(sessionInfo);
      closeUnusedSession(session, *ioRecord);
    } else {
      PKCS11_SERVICE_INFO work;
      work.setSlotID(slotID);
      work.setSlotInfo(slotInfo);
      work.setHSession(session);
      work.setHSessionInfo(sessionInfo);
      work.setTokenInfo(tokenInfo);
      *ioRecord = work.mutableCopyWithZone();
    }
    return (*ioRecord)->hSession() == kNoHandle ? kSessionExists : CKR_OK;
  });
}

CK_RV P11Bridge::pkcs11_GetSessionInfo(CK_SESSION_HANDLE session,
                                       std::shared_ptr<PKCS11_SERVICE_INFO>* ioRecord) noexcept {
  return operation(BridgeOperation::pkcs11_GetSessionInfo, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    CK_SESSION_INFO info{};
    if (CK_RV rv = call<&CK_FUNCTION_LIST::C_GetSessionInfo>(session, &info); rv != CKR_OK) return rv;
    if (ioRecord && *ioRecord) (*ioRecord)->setHSessionInfo(info);
    return CKR_OK;
  });
}

CK_RV P11Bridge::pkcs11_CloseSession(CK_SLOT_ID slotID,
                                     const std::shared_ptr<PKCS11_SERVICE_INFO>& record) noexcept {
  return operation(BridgeOperation::pkcs11_CloseSession, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (slotID == kNoHandle || !record) return CKR_ARGUMENTS_BAD;
    if (CK_RV rv = call<&CK_FUNCTION_LIST::C_CloseSession>(record->hSession()); rv != CKR_OK) return rv;
    // Oddity: the slot is compared after the session has been closed.
    if (record->slotID() != slotID) return CKR_SLOT_ID_INVALID;
    record->setHSession(kNoHandle);
    record->setHSessionInfo({});
    return CKR_OK;
  });
}

CK_RV P11Bridge::pkcs11_UserLogin(CK_SESSION_HANDLE session, const CK_BYTE* pin, CK_ULONG pinLen) noexcept {
  return operation(BridgeOperation::pkcs11_UserLogin, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (!pin || pinLen == 0 || pinLen > kMaxPinLen) return CKR_ARGUMENTS_BAD;
    // The module only reads the PIN; the standard's prototype does not say so.
    if (CK_RV rv =
            call<&CK_FUNCTION_LIST::C_Login>(session, CKU_USER, const_cast<CK_UTF8CHAR_PTR>(pin), pinLen);
        rv != CKR_OK) {
      return rv;
    }
    CK_SESSION_INFO info{};
    if (CK_RV rv = call<&CK_FUNCTION_LIST::C_GetSessionInfo>(session, &info); rv != CKR_OK) return rv;
    if ((info.flags & CKF_SERIAL_SESSION) == 0) return kSessionReadOnlyExists;
    if (info.slotID == kNoHandle) return CKR_SLOT_ID_INVALID;
    // Bit 0 is set in CKS_RO_USER_FUNCTIONS and CKS_RW_USER_FUNCTIONS alone.
    const bool userState = (info.state & CKS_RO_USER_FUNCTIONS) != 0;
    // Oddity: the session's device error becomes the result of a good login.
    return userState ? info.ulDeviceError : kLoginDidNotTake;
  });
}

}  // namespace mirel

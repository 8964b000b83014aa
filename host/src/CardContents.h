#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bridge/cryptoki.h"
#include "host/CardReport.h"
#include "platform/Bytes.h"
#include "platform/PlatformServices.h"

namespace mirel {

class P11Bridge;

/// A public key or a certificate, and what of it keeps it from being listed.
struct CardObject {
  UnpublishedObject about;  ///< its reason is empty when nothing of the object itself speaks against it
  CK_OBJECT_HANDLE handle = 0;
  std::vector<CK_BYTE> id;
  Bytes data;                        ///< of a certificate; null when it was not read
  CK_KEY_TYPE keyType = 0;           ///< of a public key
  std::vector<CK_BYTE> publicValue;  ///< of a public key: its modulus or point; empty when it was not read
  bool listed = true;                ///< by the card framework
  bool readable = true;              ///< for a certificate: as one
  bool keyIsKnown = true;            ///< for a certificate: to the keychain
  bool isPrivate = false;            ///< it shows only after a login
  bool byAbsence = false;            ///< left out because another object was not found
};

struct PrivateKeyObject {
  Text label;  ///< null when it cannot be read
  Text id;     ///< null when it cannot be read
  // Nothing when the card does not say.
  std::optional<bool> alwaysAuthenticate;
  std::optional<bool> maySign;
  std::optional<bool> mayDecrypt;
};

/// What one session sees of a card, each class found once and each attribute read once.
struct CardContents {
  std::vector<CardObject> publicKeys;
  std::vector<CardObject> certificates;
  std::vector<PrivateKeyObject> privateKeys;
  bool morePublicKeys = false;      ///< than are listed
  bool moreCertificates = false;    ///< than are listed
  bool loggedIn = false;            ///< the session sees private objects too
  bool allPrivateKeysSeen = false;  ///< and their IDs read
  std::string failedRead;           ///< the first call that failed to find or read them, or to tell whether
                                    ///< somebody is logged in; empty: none
  std::string failedPrivateRead;    ///< the same for private keys
  std::optional<FindingID> gone;  ///< one of these two calls said that the card, or the module, is not there
                                  ///< any more
};

/// Reads the card in a slot through a session of its own. `afterLogin`:
/// a user has logged in, so private objects may show; whether they do, the session tells.
[[nodiscard]] CardContents readCard(const P11Bridge& bridge, CK_SLOT_ID slotID,
                                    CertificateParser& certificates, bool afterLogin);

}  // namespace mirel

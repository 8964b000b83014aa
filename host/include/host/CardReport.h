#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/Finding.h"
#include "platform/Text.h"

namespace mirel {

/// An object of the card that is not published, or keeps the whole card from being published.
struct UnpublishedObject {
  std::string kind;  ///< "certificate" or "public key"
  Text label;        ///< null when it cannot be read
  Text id;           ///< null when it cannot be read
  std::string reason;
  FindingID cause = FindingID::kObjectLeftOut;
  bool blocksCard = false;  ///< because of it nothing at all is published
  bool unread = false;      ///< it could not be read now: whether it is published is not known from this
  bool expected = false;    ///< it is as it should be: the certificate of an issuer needs no key
  bool byPartner = false;  ///< because of the object with its ID, which is told itself: no finding of its own
};

/// What `KeyReport::works` ends with where the key wants the PIN for each use.
inline constexpr std::string_view kOnceForEachLogin = "; at most once after each login";

/// A key that is published, or would be if nothing hid the card.
struct KeyReport {
  Text objectID;
  Text labelOnCard;  ///< of its public-key object; null when that could not be read
  /// What people can do with it, as one phrase: "decrypts PKCS #1 v1.5; not OAEP", or "nothing: EC keys never
  /// sign here".
  std::string works;
  bool worksForNothing = false;
  /// Whether its private key is on the card; nothing where that cannot be seen without a login.
  std::optional<bool> hasPrivateKey;
  std::optional<bool> wantsPinForEachUse;  ///< as its private key says; nothing where it does not
  bool sharesIDWithOtherKey = false;  ///< one of its ID is another one, not only another certificate of it
  std::vector<Finding> findings;      ///< those of the report that are about this key or its certificate
};

/// What is known about the card in a reader, found without any trial of its keys.
///
/// A finding that something is missing rests on calls that all succeeded; else there is one of kObjectUnread.
/// What does not work of a single object is a failure where no key of the card works at all, else a warning.
struct CardReport {
  std::vector<Finding> findings;               ///< the worst first, then in the order of their codes
  std::vector<UnpublishedObject> unpublished;  ///< in the order of the card, public keys first
  /// In published order, those that are alike in everything once; of a card that is hidden those that are
  /// lost by it.
  std::vector<KeyReport> keys;
  bool hidden = false;     ///< an object keeps the whole card from being published
  bool loggedIn = false;   ///< objects that show only after a login were seen as well
  std::string failedRead;  ///< the call for which objects or reasons may be missing; empty: none failed
  std::string failedPrivateRead;  ///< the same of private keys
  std::string otherUnread;        ///< why the name of another card is not known; empty: all are
};

/// A card's object as findings name it: certificate 02 "Signature". Null texts are left out.
[[nodiscard]] std::string subjectOf(std::string_view kind, const Text& id, const Text& label);

/// What is known of how a module treats raw RSA: the padding of PKCS #1 v1.5 is only there if it adds it.
enum class ModulePadding { kUnknown, kNone, kAdds };

/// The programs that ask for signatures by PKCS #1 v1.5.
inline constexpr std::string_view kPkcs1Users = "TLS 1.2 with rsa_pkcs1, CMS (S/MIME), most PDF signers";

/// What an RSA key of up to 2048 bits signs: "signs RSA-PSS; not PKCS #1 v1.5 (TLS 1.2 with ...)". Of a key
/// that is too short for some hashes: "signs RSA-PSS up to SHA-384; ...".
[[nodiscard]] std::string signingPhrase(ModulePadding padding, int keySizeInBits);

}  // namespace mirel

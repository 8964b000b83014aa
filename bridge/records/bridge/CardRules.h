#pragma once

#include <array>
#include <string_view>

#include "bridge/cryptoki.h"
#include "platform/Text.h"

namespace mirel {

/// What this system takes of a module and of a card, and the names that it makes of what it reads: every
/// limit and every fixed text that more than one place knows. The layers keep to them, and the host explains
/// with them why something of a card is not published. So a limit is changed here and nowhere else.
///
/// Lengths are bytes.

// ---- The module ----

/// The module's path behind the user's home folder.
inline constexpr const char* kModuleTail = "/Library/LunetLocalSignServer/libTorvo_p11v1.dylib";

// ---- Slots ----

/// The room, in slot identifiers, that the module is told of whenever the layers have it list its slots.
inline constexpr CK_ULONG kAnnouncedSlots = 10;

/// The most slots that a list is made for. A module that reports more is not believed.
inline constexpr CK_ULONG kMaxSlots = 4096;

// ---- Login ----

/// The longest PIN that is handed to the module, whatever the token's own limit is.
inline constexpr CK_ULONG kMaxPinLen = 8;

// ---- Objects ----

/// The most handles that one search of the bridge keeps.
inline constexpr CK_ULONG kMaxFoundObjects = 256;

/// The most objects of one class that are listed of a card; those behind them are as if they were not there.
inline constexpr CK_ULONG kMaxListedObjects = 160;
static_assert(kMaxListedObjects <= kMaxFoundObjects);

/// Set in the code of an attribute read that failed when the values were fetched again.
inline constexpr CK_RV kRereadFailed = 0x80000000;

// ---- Attributes ----

/// What is done without a value that cannot be had: it is missing, empty, or cannot be read.
enum class WhenUnreadable {
  kObjectLeftOut,  ///< the card is listed without that object
  kCardRefused     ///< nothing of the card is listed
};

/// What is taken of one attribute.
struct AttributeRule {
  CK_OBJECT_CLASS objectClass;
  CK_ATTRIBUTE_TYPE type;
  CK_ULONG largest;       ///< a longer value leaves its object out, ...
  CK_ULONG refusedAbove;  ///< ... and one that is longer than this has the whole card refused
  WhenUnreadable whenUnreadable;
};

/// The longest value that is taken of an attribute which every key has.
inline constexpr CK_ULONG kMaxKeyAttributeLen = 2000;

inline constexpr std::array kAttributeRules{
    AttributeRule{CKO_PUBLIC_KEY, CKA_LABEL, kMaxKeyAttributeLen, kMaxKeyAttributeLen,
                  WhenUnreadable::kCardRefused},
    AttributeRule{CKO_PUBLIC_KEY, CKA_ID, kMaxKeyAttributeLen, kMaxKeyAttributeLen,
                  WhenUnreadable::kCardRefused},
    AttributeRule{CKO_PUBLIC_KEY, CKA_KEY_TYPE, kMaxKeyAttributeLen, kMaxKeyAttributeLen,
                  WhenUnreadable::kCardRefused},
    AttributeRule{CKO_PUBLIC_KEY, CKA_MODULUS, 639, 639, WhenUnreadable::kObjectLeftOut},
    AttributeRule{CKO_PUBLIC_KEY, CKA_EC_POINT, 200, 520, WhenUnreadable::kObjectLeftOut},
    AttributeRule{CKO_CERTIFICATE, CKA_LABEL, 256, 256, WhenUnreadable::kCardRefused},
    AttributeRule{CKO_CERTIFICATE, CKA_ID, 256, 256, WhenUnreadable::kCardRefused},
    AttributeRule{CKO_CERTIFICATE, CKA_VALUE, 2000, 2000, WhenUnreadable::kCardRefused},
};

/// The rule for one attribute of a class; asking for one that is not in the table does not compile.
[[nodiscard]] consteval AttributeRule ruleOf(CK_OBJECT_CLASS objectClass, CK_ATTRIBUTE_TYPE type) {
  for (const AttributeRule& rule : kAttributeRules) {
    if (rule.objectClass == objectClass && rule.type == type) return rule;
  }
  throw "there is no rule for this attribute";
}

/// The longest CKA_ID by which a private key is looked for.
inline constexpr CK_ULONG kMaxSearchedIDLen = 254;

// ---- Names ----

/// In the name that the card layer has for a key, in whatever case, it makes the key sign by PSS in the card.
inline constexpr std::u16string_view kPssMark = u"PSS";

/// How the object identifiers of certificate items begin.
inline constexpr std::u16string_view kCertificateNamePrefix = u"cert_";

/// The object identifier of a certificate's keychain item, "cert_<label>_<ID>"; a null text reads as
/// "(null)".
[[nodiscard]] Text certificateNameOf(const Text& label, const Text& id);

/// The token's instance identifier: the bytes of the card's token information from its label up to the first
/// zero byte, then those from its serial number up to the first zero byte, one character for each.
/// Oddity: they run on through the fields behind, which is part of the name the token is known under; they
/// end with the structure at the latest.
[[nodiscard]] Text instanceIDOf(const CK_TOKEN_INFO& token);

}  // namespace mirel

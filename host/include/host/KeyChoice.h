#pragma once

#include <string>
#include <string_view>

#include "host/Host.h"
#include "host/Result.h"

namespace mirel {

/// A key and its certificate.
struct ChosenKey {
  PublishedKey key;
  PublishedCertificate certificate;
};

/// The keys among the items, in their order; those that are alike in everything count as one.
[[nodiscard]] std::vector<PublishedKey> keysOf(const InsertedCard& card);

/// The certificate that the key's item names; it lives as long as the card's items do. Null: there is none.
[[nodiscard]] const PublishedCertificate* certificateOf(const InsertedCard& card, const PublishedKey& key);

/// The label of a key or of its certificate: that of the certificate on the card, from the object identifier
/// of the item. Null where that identifier is of another kind.
[[nodiscard]] Text labelOf(const PublishedKey& key);
[[nodiscard]] Text labelOf(const PublishedCertificate& certificate);

/// The key that `name` (UTF-8) stands for. In this order, each as a whole:
/// - its ID in hexadecimal digits, of either case: "0017", "0x0017", "00:17";
/// - a label, of its item or of its certificate on the card, as it is displayed;
/// - a PKCS #11 URI (RFC 7512) that fits it and its card;
/// - "#N" for the N-th key;
/// - its object identifier, or a label, with each byte of the card taken for a character.
/// Of keys with one ID the first is meant, as in the keychain. kKeyNotFound when there is none or several
/// fit, also where an ID is the label of another key; the failure lists them. kBadInput for a URI that names
/// no key. Where a read failed when the card was inserted, a key may be missing: then only an ID, also in a
/// URI, stands for a key, and anything else is kCardEnumerationFailed.
[[nodiscard]] Result<ChosenKey> chooseKey(const InsertedCard& card, std::string_view name);

/// Whether `name` can stand for a key at all, as far as that shows without a card (see Pkcs11Uri.h).
[[nodiscard]] Result<void> checkKeyName(std::string_view name);

}  // namespace mirel

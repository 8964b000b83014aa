#pragma once

#include <optional>

#include "doctor/Checks.h"
#include "host/CardReport.h"
#include "host/KeyClient.h"

namespace mirel {

/// The failure of one trial signature; nothing where it verifies.
[[nodiscard]] std::optional<Failure> failureOfSigning(KeyClient& client, const PublishedKey& key,
                                                      SecKeyAlgorithm algorithm, PinSource& pins);

/// The failure of one trial decryption; nothing where the text is as it was before.
[[nodiscard]] std::optional<Failure> failureOfDecrypting(KeyClient& client, const PublishedKey& key,
                                                         const PublishedCertificate& certificate,
                                                         PinSource& pins);

/// Whether another key has its ID: which of the two the card works with is not known, so that a trial that
/// fails says nothing of the module.
[[nodiscard]] bool sharesItsID(const PublishedKey& key, const CardReport& report);

/// Whether a failure says nothing of the module and the card: that has gone, or the device failed.
[[nodiscard]] bool saysNothingOfModule(const Failure& failure);

/// Whether a failure says nothing of what the key can do.
[[nodiscard]] bool saysNothing(const Failure& failure);

/// Whether the key says that it wants the PIN for each use. Some modules end the login when it is used
/// without: then no other private key is found any more.
[[nodiscard]] bool wantsPinForEachUse(const PublishedKey& key, const CardReport& report);

/// What the keys of a card are tried with, on which a user is logged in.
struct KeyTrial {
  KeyClient& client;
  const InsertedCard& card;
  const CardReport& report;  ///< from after the login
  PinSource& pins;
  bool isOwnLogin = false;  ///< the client has logged in; else somebody else, who may end that at any time
};

/// One signature of each key that may sign, by RSA-PSS and by PKCS #1 v1.5, of data that are made up here;
/// each is verified, none is kept. And one decryption by each key that decrypts, of a text that is made up.
void tryKeys(const KeyTrial& trial, const Checkpoint& signatures, const Checkpoint& decryption,
             Checks& checks);

}  // namespace mirel

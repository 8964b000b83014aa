#pragma once

#include "doctor/Checks.h"
#include "host/CardReport.h"
#include "host/KeyClient.h"

namespace mirel {

/// One signature of each key that may sign, by RSA-PSS and by PKCS #1 v1.5, of data that are made up here;
/// each is verified, none is kept. The client has logged in.
void trySigning(KeyClient& client, const InsertedCard& card, const CardReport& report, PinSource& pins,
                const Checkpoint& point, Checks& checks);

/// One decryption by each key that decrypts, of a text that is made up here.
void tryDecrypting(KeyClient& client, const InsertedCard& card, const CardReport& report, PinSource& pins,
                   const Checkpoint& point, Checks& checks);

}  // namespace mirel

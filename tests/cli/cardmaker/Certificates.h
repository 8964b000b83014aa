#pragma once

#include "Description.h"
#include "Keys.h"
#include "Module.h"

namespace mirel::cardmaker {

/// Adds what a certificate object of PKCS #11 needs besides what all objects have: a new certificate for the
/// public key of the line's type, signed with an RSA key, or the bytes that stand in its place. Throws
/// std::invalid_argument for a date that is none, std::runtime_error when OpenSSL does not make it (as with a
/// key usage that is none) or no padding gives the size.
void describeCertificate(const Line& line, KeyStore& keys, Template& out);

}  // namespace mirel::cardmaker

#pragma once

#import <Security/Security.h>

#include <memory>

#include "platform/Certificate.h"

namespace mirel {

/// The platform's certificate, not owned by the caller; null for one that this platform has not made.
[[nodiscard]] SecCertificateRef refOf(const SecCertificate& certificate) noexcept;

/// The same certificate for the core; null for null.
[[nodiscard]] std::shared_ptr<SecCertificate> wrapped(SecCertificateRef certificate) noexcept;

}  // namespace mirel

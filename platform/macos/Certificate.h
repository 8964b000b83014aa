#pragma once

#import <Security/Security.h>

#include "platform/Certificate.h"

namespace mirel {

/// The platform's certificate, not owned by the caller; null for one that this platform has not made.
[[nodiscard]] SecCertificateRef refOf(const SecCertificate& certificate) noexcept;

}  // namespace mirel

#pragma once

#include "ExitCode.h"
#include "Options.h"

namespace mirel {
class Host;
}

namespace mirel::cli {

/// "readers": the slots that hold a token.
[[nodiscard]] ExitCode runReaders(Host& host, const Options& options);

/// "items": what the keychain would hold of an inserted card.
[[nodiscard]] ExitCode runItems(Host& host, const Options& options);

/// "certificate": the certificate of a key.
[[nodiscard]] ExitCode runCertificate(Host& host, const Options& options);

/// "algorithms": what the keys accept.
[[nodiscard]] ExitCode runAlgorithms(Host& host, const Options& options);

/// "login": whether the PIN is right.
[[nodiscard]] ExitCode runLogin(Host& host, const Options& options);

/// "sign", "decrypt", "exchange": a key of the card at work.
[[nodiscard]] ExitCode runSign(Host& host, const Options& options);
[[nodiscard]] ExitCode runDecrypt(Host& host, const Options& options);
[[nodiscard]] ExitCode runExchange(Host& host, const Options& options);

}  // namespace mirel::cli

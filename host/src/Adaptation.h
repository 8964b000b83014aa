#pragma once

/// How the key services bring a request into a form that a token accepts: from each algorithm to the one that
/// does more of the work outside the token.

#include <optional>
#include <vector>

#include "host/Host.h"
#include "platform/Digest.h"
#include "platform/SecKeyAlgorithm.h"
#include "token/TokenKit.h"

namespace mirel {

/// What has to be done to get from the data of one form to those of the next.
enum class AdaptationKind {
  kHash,        ///< before signing: the digest of the message
  kDigestInfo,  ///< before signing: the digest with its algorithm
  kPadPKCS1,    ///< before signing: a whole block of PKCS #1 v1.5
  kEncodePSS,   ///< before signing: a whole block of PSS
  kAsItIs,      ///< the same data under another name
  kUnpadPKCS1,  ///< after decrypting
  kDecodeOAEP,  ///< after decrypting
  kComposite,   ///< more than this program does: a symmetric cipher or a key derivation around the key
};

struct AdaptationStep {
  AdaptationKind kind;
  SecKeyAlgorithm to;
  Hash hash;  ///< where the kind needs one
};

/// The next form; nothing for the lowest ones.
[[nodiscard]] std::optional<AdaptationStep> nextStep(SecKeyAlgorithm algorithm);

/// What a token is asked for in that form; also what a client wants who names it.
[[nodiscard]] TKTokenOperation operationOf(SecKeyAlgorithm form) noexcept;

/// The same operation as items know it.
[[nodiscard]] KeyOperation keyOperationOf(TKTokenOperation operation) noexcept;

[[nodiscard]] bool isRsaAlgorithm(SecKeyAlgorithm algorithm) noexcept;

/// The way from one form to another that follows it.
[[nodiscard]] std::vector<AdaptationStep> stepsBetween(SecKeyAlgorithm from, SecKeyAlgorithm to);

/// Whether one of the steps is more than this program does.
[[nodiscard]] bool isComposite(const std::vector<AdaptationStep>& steps) noexcept;

}  // namespace mirel

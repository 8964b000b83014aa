#pragma once

/// The platform's own objects as the core sees them. Each wrapper shares its object.

#import <CryptoTokenKit/CryptoTokenKit.h>

#include <memory>

#include "platform/TokenKit.h"

namespace mirel {

/// What the platform prints for an object, also for nil.
[[nodiscard]] Text descriptionOf(id object) noexcept;

/// Null for nil, also below, except as noted.
[[nodiscard]] std::shared_ptr<TKSmartCard> wrapped(::TKSmartCard* card) noexcept;
[[nodiscard]] std::shared_ptr<TKSmartCardTokenDriver> wrapped(::TKSmartCardTokenDriver* driver) noexcept;
/// Never null: nil is one that is none of the algorithms.
[[nodiscard]] std::shared_ptr<TKTokenKeyAlgorithm> wrapped(::TKTokenKeyAlgorithm* algorithm) noexcept;
[[nodiscard]] std::shared_ptr<TKTokenKeyExchangeParameters> wrapped(
    ::TKTokenKeyExchangeParameters* parameters) noexcept;
[[nodiscard]] std::shared_ptr<TKSmartCardPINFormat> wrapped(::TKSmartCardPINFormat* format) noexcept;
/// A key item that is none of ours. It cannot be initialised again.
[[nodiscard]] std::shared_ptr<TKTokenKeychainKey> wrapped(::TKTokenKeychainKey* key) noexcept;

/// A new certificate item, not yet initialised.
[[nodiscard]] std::shared_ptr<TKTokenKeychainCertificate> allocatedKeychainCertificate() noexcept;
/// A new PIN format with the platform's defaults.
[[nodiscard]] std::shared_ptr<TKSmartCardPINFormat> newPINFormat() noexcept;

/// The platform's object behind a wrapper or behind an object of ours; nil when there is none. Not owned.
[[nodiscard]] id objectBehind(const std::shared_ptr<TKTokenObject>& object) noexcept;

/// From boxed operation to constraint.
[[nodiscard]] NSDictionary* dictionaryOf(const TKTokenConstraints& constraints) noexcept;

}  // namespace mirel

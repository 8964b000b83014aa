#pragma once

#include <utility>
#include <variant>

#include "host/Failure.h"

namespace mirel {

/// What an operation that can fail answers: a value, or the failure for which there is none. It is true when
/// there is a value. To ask for the one that is not there throws std::bad_variant_access.
///
///     const auto card = host.insert(reader);
///     if (!card) return card.failure();
///     show(*card);
template <typename Value>
class [[nodiscard]] Result {
 public:
  // NOLINTBEGIN(google-explicit-constructor): `return` takes either
  Result(Value value) : held_{std::in_place_index<0>, std::move(value)} {}
  Result(Failure failure) : held_{std::in_place_index<1>, std::move(failure)} {}
  // NOLINTEND(google-explicit-constructor)

  [[nodiscard]] explicit operator bool() const noexcept { return held_.index() == 0; }

  [[nodiscard]] Value& operator*() & { return std::get<0>(held_); }
  [[nodiscard]] const Value& operator*() const& { return std::get<0>(held_); }
  [[nodiscard]] Value&& operator*() && { return std::get<0>(std::move(held_)); }
  [[nodiscard]] Value* operator->() { return &std::get<0>(held_); }
  [[nodiscard]] const Value* operator->() const { return &std::get<0>(held_); }

  [[nodiscard]] const Failure& failure() const& { return std::get<1>(held_); }
  [[nodiscard]] Failure&& failure() && { return std::get<1>(std::move(held_)); }

 private:
  std::variant<Value, Failure> held_;
};

/// The same for an operation without a value: it is true when the operation succeeded, as one made without a
/// failure has.
template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Failure failure) : held_{std::move(failure)} {}  // NOLINT(google-explicit-constructor)

  [[nodiscard]] explicit operator bool() const noexcept { return held_.index() == 0; }

  [[nodiscard]] const Failure& failure() const& { return std::get<Failure>(held_); }
  [[nodiscard]] Failure&& failure() && { return std::get<Failure>(std::move(held_)); }

 private:
  std::variant<std::monostate, Failure> held_;
};

}  // namespace mirel

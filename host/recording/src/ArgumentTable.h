#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "bridge/cryptoki.h"

namespace mirel::recording {

/// An argument of a Cryptoki function as a number: what it is, or where it points.
using Word = std::uintptr_t;
static_assert(sizeof(CK_ULONG) == sizeof(Word));

/// What the argument points to.
template <typename T>
[[nodiscard]] T* pointerOf(Word word) noexcept {
  return reinterpret_cast<T*>(word);  // NOLINT(performance-no-int-to-ptr): it was that pointer
}

/// What an argument is. The kind alone decides what of it is recorded, and in a replay what is written there.
enum class ArgumentKind : std::uint8_t {
  kNumber,       ///< a number, a handle, flags: recorded
  kGiven,        ///< a pointer of which only is recorded whether it is null
  kPin,          ///< a PIN and its length: nothing is recorded
  kData,         ///< bytes that go to the card, and their length: the length
  kSearch,       ///< attributes to be matched or given, and their number: see attributeForm
  kQuery,        ///< attributes to be read, and their number: see attributeForm
  kMechanism,    ///< a mechanism: its type, and those parameters that are numbers
  kSignature,    ///< room for a signature, and its length: recorded
  kPlainText,    ///< room for a plain text, and its length: the length
  kInfo,         ///< structures that the module fills in: recorded
  kSlotInfo,     //
  kTokenInfo,    //
  kSessionInfo,  //
  kHandle,       ///< room for a handle: recorded
  kSlots,        ///< room for slots, and their number: recorded
  kFound,        ///< room for objects, how many there may be, and how many there are: recorded
};

/// How many arguments of the function it takes.
[[nodiscard]] std::size_t numWordsOf(ArgumentKind kind) noexcept;

struct Argument {
  const char* name;
  ArgumentKind kind;
};

/// A function whose arguments are known; all others are recorded by name and result alone.
struct FunctionRow {
  std::string_view function;
  std::span<const Argument> arguments;
};

[[nodiscard]] std::span<const FunctionRow> functionTable() noexcept;

/// Null where its arguments are not known.
[[nodiscard]] const FunctionRow* rowOf(std::string_view function) noexcept;

/// How an attribute's value may be recorded.
enum class AttributeForm : std::uint8_t {
  kHidden,       ///< by its length
  kNumber,       ///< a number or a boolean
  kText,         ///< text
  kBytes,        ///< bytes that are public
  kCertificate,  ///< the bytes of a certificate; hidden where the object was not found as one
};

[[nodiscard]] AttributeForm attributeForm(CK_ATTRIBUTE_TYPE type) noexcept;

/// "CKA_LABEL"; empty where its form is kHidden and the standard's name is not known here.
[[nodiscard]] std::string_view attributeName(CK_ATTRIBUTE_TYPE type) noexcept;

}  // namespace mirel::recording

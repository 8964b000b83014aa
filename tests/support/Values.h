#pragma once

/// Values that the tests of several layers compare, and how a failing comparison shows them.

#include <cstddef>
#include <ostream>
#include <span>
#include <string>
#include <vector>

#include "module/Card.h"
#include "platform/Bytes.h"
#include "platform/Text.h"

namespace mirel {

/// A text: quoted, with control characters as \xNN; or null.
void PrintTo(const Text& text, std::ostream* out);
/// Bytes: hexadecimal digits, or null.
void PrintTo(const Bytes& bytes, std::ostream* out);

}  // namespace mirel

namespace mirel::test {

inline constexpr CK_ULONG kAllOnes = ~CK_ULONG{0};

/// Handles that never are anything.
inline constexpr CK_ULONG kNoHandles[] = {0, kAllOnes};

/// What a module answers here whenever a call is made to fail: no operation has a use for this code.
inline constexpr CK_RV kSomeFailure = CKR_DEVICE_ERROR;

/// The name of the default card's reader.
[[nodiscard]] inline Text reader() { return Text{u"Reader A 00"}; }

/// `value` as a record holds it.
[[nodiscard]] inline Bytes bytesLike(const Value& value) { return Bytes{value}; }

/// The characters of a text field of a Cryptoki structure, padding included.
template <std::size_t Size>
[[nodiscard]] std::string fieldText(const CK_BYTE (&field)[Size]) {
  return {field, field + Size};
}

/// The content of a Cryptoki structure up to the end of its last member.
[[nodiscard]] Value membersOf(const CK_SLOT_INFO& info);
[[nodiscard]] Value membersOf(const CK_TOKEN_INFO& info);
[[nodiscard]] Value membersOf(const CK_SESSION_INFO& info);

/// Several lists of calls, one behind the other.
[[nodiscard]] std::vector<std::string> inOrder(std::initializer_list<std::vector<std::string>> lists);

/// How the bridge looks up the private key with the ID "01" in session 5, starting from that object.
[[nodiscard]] std::vector<std::string> lookUpCalls(CK_OBJECT_HANDLE object,
                                                   const std::string& idText = "3031");
/// How it reads the length of a modulus of 256 bytes.
[[nodiscard]] std::vector<std::string> modulusCalls(CK_OBJECT_HANDLE object);

}  // namespace mirel::test

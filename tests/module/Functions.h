#pragma once

#include <cstddef>
#include <string_view>

#include "bridge/CryptokiNames.h"

namespace mirel::test {

/// The position of the function of that name; ends the process when there is none, because a test
/// that names none tests nothing.
[[nodiscard]] std::size_t functionPosition(std::string_view name);

/// The type behind a member of the list: CK_RV (*)(CK_SESSION_HANDLE) for C_Logout.
template <typename Member>
struct MemberType;
template <typename Type>
struct MemberType<Type CK_FUNCTION_LIST::*> {
  using type = Type;
};
template <auto Function>
using FunctionType = typename MemberType<decltype(Function)>::type;

}  // namespace mirel::test

/// A module whose entry point fails, having written a pointer to nowhere.

#include <cstdint>

#include "bridge/cryptoki.h"

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  *list = reinterpret_cast<CK_FUNCTION_LIST_PTR>(std::uintptr_t{0xDEAD0});
  return CKR_GENERAL_ERROR;
}

#pragma once

/// Where the build put the scripted module and the libraries that cannot be loaded as a module. Link
/// the target module_files to have them.

namespace mirel::test {

inline constexpr const char* kScriptedModule = MIREL_SCRIPTED_MODULE;

/// A text file.
inline constexpr const char* kNotALibrary = MIREL_NOT_A_LIBRARY;
/// A library without "C_GetFunctionList".
inline constexpr const char* kModuleWithoutEntry = MIREL_MODULE_WITHOUT_ENTRY;
/// Its entry point answers CKR_GENERAL_ERROR and writes nothing.
inline constexpr const char* kModuleEntryFails = MIREL_MODULE_ENTRY_FAILS;
/// Its entry point answers CKR_GENERAL_ERROR and has written a pointer to nowhere.
inline constexpr const char* kModuleEntryFailsWild = MIREL_MODULE_ENTRY_FAILS_WILD;
/// Its entry point answers CKR_OK and writes a null list.
inline constexpr const char* kModuleNullList = MIREL_MODULE_NULL_LIST;
/// Its entry point answers CKR_OK and writes nothing.
inline constexpr const char* kModuleSilentEntry = MIREL_MODULE_SILENT_ENTRY;

}  // namespace mirel::test

#pragma once

#include <cstdint>

namespace mirel {

/// Which operation; the bridge's records list them.
enum class BridgeOperation : std::uint8_t;

/// Told of every call that the bridge makes into the PKCS #11 module for a token, and of the result of every
/// operation of the bridge; not of the calls by which a host looks at readers and cards for the user, which
/// have an observer of their own. For
/// measuring and for explaining failures; it gets no arguments, so it can see neither PINs nor data.
class CryptokiObserver {
 public:
  CryptokiObserver() = default;
  CryptokiObserver(const CryptokiObserver&) = delete;
  CryptokiObserver& operator=(const CryptokiObserver&) = delete;
  virtual ~CryptokiObserver() = default;

  /// Before and after a call of the module's `function` ("C_Login"), with the wait for the calls of other
  /// threads in between. Bridges that are used in several threads tell it from all of them, also at once. An
  /// entry that the module lacks is reported as well, with CKR_FUNCTION_NOT_SUPPORTED (0x54).
  virtual void callStarts(const char* function) noexcept = 0;
  virtual void callReturned(const char* function, std::uint64_t result) noexcept = 0;

  /// After an operation of the bridge has ended with a result code.
  virtual void operationReturned(BridgeOperation operation, std::uint64_t result) noexcept = 0;
};

}  // namespace mirel

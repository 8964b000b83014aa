#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <span>
#include <string>
#include <string_view>

#include "bridge/P11Bridge.h"
#include "bridge/PKCS11_ASYMKEY_INFO.h"
#include "bridge/PKCS11_CERTIFICATEOBJ_INFO.h"
#include "bridge/PKCS11_SERVICE_INFO.h"
#include "framework/FailingRounds.h"
#include "framework/MirelCTKFramework.h"
#include "support/ModuleTest.h"

namespace mirel {

/// How a failing comparison shows a text: quoted, with control characters as \xNN; or null.
void PrintTo(const Text& text, std::ostream* out);
/// The same for bytes: hexadecimal digits, or null.
void PrintTo(const Bytes& bytes, std::ostream* out);

}  // namespace mirel

namespace mirel::test {

using namespace std::string_view_literals;

/// The name of the default card's reader.
[[nodiscard]] Text reader();

/// The characters of a text field of a Cryptoki structure, padding included.
template <std::size_t Size>
[[nodiscard]] std::string fieldText(const CK_BYTE (&field)[Size]) {
  return {field, field + Size};
}

/// `value` as a record holds it.
[[nodiscard]] Bytes bytesLike(const Value& value);

/// `handle`, the only session that is open, in the form that the script gives.
[[nodiscard]] std::vector<CK_SESSION_HANDLE> only(CK_SESSION_HANDLE handle);

/// A test with a framework on the scripted module. Nothing is loaded at its start.
class FrameworkTest : public ModuleTest {
 protected:
  FrameworkTest() { newFramework(); }

  /// Puts a new framework, without anything loaded, in the place of the old one.
  void newFramework();

  /// The same, in a home where another file is in the module's place. An empty path: no file is.
  void useModule(const char* path);

  /// Loads and initialises the module. Forgets the calls.
  void openService();
  /// The same, then opens the session kFirstSession on the default card, which the end of the test
  /// must find open.
  void openSession();
  /// The same, then lists the default card's key and certificate.
  void openSessionAndEnumerate();

  /// Has the module behave again, in the state it has after C_Initialize, and expects this framework to
  /// list the default card's key and certificate.
  void expectUsable();

  /// Runs `round` for each of the `numCalls` calls of an operation, that call failing with `code` (see
  /// FailingRounds.h), and expects to be usable after each round.
  void failEachCall(CK_RV code, std::size_t numCalls, const std::function<void(FailPoint&)>& round);
  /// The same for its requests of memory.
  void failEachAllocation(std::size_t numAllocations, const std::function<void(FailPoint&)>& round);

  /// The framework's record. One must be there.
  [[nodiscard]] PKCS11_SERVICE_INFO& record() const;
  [[nodiscard]] const KeyRecords& keys() const;
  [[nodiscard]] const CertificateRecords& certificates() const;

  /// Removes all objects of the default card.
  void emptyTheCard() { script.card().objects.clear(); }

  std::unique_ptr<MirelCTKFramework> framework;

 private:
  std::vector<std::unique_ptr<ModuleHome>> otherHomes_;
};

/// A record that a caller has kept, with what it listed then.
struct RetainedRecord {
  explicit RetainedRecord(std::shared_ptr<PKCS11_SERVICE_INFO> kept);

  std::shared_ptr<PKCS11_SERVICE_INFO> record;
  std::shared_ptr<KeyRecords> keys;
  std::shared_ptr<CertificateRecords> certificates;
  KeyRecords listedKeys;
  CertificateRecords listedCertificates;
};

/// Expects the lists of the record to be empty and its counts to be 0.
void expectEmptied(const RetainedRecord& retained);
/// Expects the members that a release takes from the listed keys and certificates to be null.
void expectMembersReleased(const RetainedRecord& retained);
/// Expects lists, counts and members to be as they were for the default card.
void expectUntouched(const RetainedRecord& retained);

/// Expects the information to be that of the slot and card, as the module tells it.
void expectSlotInfo(const CK_SLOT_INFO& info, const Slot& slot);
void expectTokenInfo(const CK_TOKEN_INFO& info, const CK_TOKEN_INFO& expected);
void expectSessionInfo(const CK_SESSION_INFO& info, const CK_SESSION_INFO& expected);

}  // namespace mirel::test

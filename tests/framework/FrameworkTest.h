#pragma once

#include <memory>

#include "bridge/P11Bridge.h"
#include "bridge/PKCS11_ASYMKEY_INFO.h"
#include "bridge/PKCS11_CERTIFICATEOBJ_INFO.h"
#include "bridge/PKCS11_SERVICE_INFO.h"
#include "framework/MirelCTKFramework.h"
#include "support/ModuleTest.h"
#include "support/ResultBuffer.h"
#include "support/Values.h"

namespace mirel::test {

using namespace std::string_view_literals;

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
/// The same, and the members that a release takes from the listed keys and certificates to be null.
void expectReleased(const RetainedRecord& retained);
/// Expects lists, counts and members to be as they were for the default card.
void expectUntouched(const RetainedRecord& retained);

/// A test with a framework on the scripted module. Nothing is loaded at its start.
class FrameworkTest : public ModuleTest {
 protected:
  FrameworkTest() { newFramework(); }

  /// Puts a new framework, without anything loaded, in the place of the old one.
  void newFramework() { framework = std::make_unique<MirelCTKFramework>(services()); }

  /// Loads and initialises the module. Forgets calls and log lines.
  void openService();
  /// The same, then opens the session kFirstSession on the default card, which the end of the test
  /// must find open.
  void openSession();
  /// The same, then lists the default card's key and certificate. Returns that record.
  RetainedRecord openAndList();
  /// The same with a new framework on a module as at the start of the test.
  RetainedRecord startAnew();

  /// Has the module behave again, in the state it has after C_Initialize, and expects this framework to
  /// list the default card's key and certificate.
  void expectUsableAgain() override;

  /// The framework's record. One must be there.
  [[nodiscard]] PKCS11_SERVICE_INFO& record() const;
  [[nodiscard]] const KeyRecords& keys() const;
  [[nodiscard]] const CertificateRecords& certificates() const;

  /// Makes the record say something else about its slot.
  void setStoredDescription(std::string_view description);

  /// Gives both keys of the default card a modulus of that size.
  void setModulusLen(std::size_t size);
  /// How many keys and certificates the record counts.
  void expectCounts(std::int32_t numKeys, std::int32_t numCertificates);
  /// What the record says about its card, and that it lists nothing and has no session of its own.
  void expectNewRecord(CK_SLOT_ID slot, CK_SESSION_HANDLE session, const CK_SESSION_INFO& info);

  /// What the module tells about the default card's slot.
  [[nodiscard]] CK_SLOT_INFO slotInfo(CK_SLOT_ID slot = kSlot);

  void forgetAll();

  std::unique_ptr<MirelCTKFramework> framework;
};

}  // namespace mirel::test

#include "framework/MirelCTKFramework.h"

#include <array>

#include "bridge/P11Bridge.h"

namespace mirel {
namespace {

constexpr std::u16string_view kModulePathHint = u"libs/libTorvo_p11v1.dylib";  // not looked at
constexpr std::size_t kSlotListRoom = 30;

}  // namespace

MirelCTKFramework::MirelCTKFramework(PlatformServices services) noexcept : services_{std::move(services)} {}

MirelCTKFramework::~MirelCTKFramework() = default;

bool MirelCTKFramework::Framework_Load() noexcept {
  if (p11Bridge()) return false;
  setP11Bridge(std::make_shared<P11Bridge>(services_));
  setP11ServiceInfo(std::make_shared<PKCS11_SERVICE_INFO>());
  p11ServiceInfo()->setPAsymKeys(std::make_shared<KeyRecords>());
  p11ServiceInfo()->setPCerts(std::make_shared<CertificateRecords>());
  return p11Bridge()->pkcs11_Load(Text{kModulePathHint});
}

bool MirelCTKFramework::Framework_Unload() noexcept {
  const auto bridge = p11Bridge();
  return bridge && bridge->pkcs11_UnLoad(bridge->phP11Module());
}

bool MirelCTKFramework::Framework_Initialize() noexcept {
  if (const auto& record = p11ServiceInfo_) {
    record->setHSession(kNoHandle);
    record->setSlotID(kNoHandle);
    record->setM_certIndex(kNoIndex);
    record->setM_keyIndex(kNoIndex);
  }
  const auto bridge = p11Bridge();
  if (!bridge) return false;
  const CK_RV rv = bridge->pkcs11_Initial(nullptr);
  return rv == CKR_OK || rv == CKR_CRYPTOKI_ALREADY_INITIALIZED;
}

bool MirelCTKFramework::Framework_Finalize() noexcept {
  const auto bridge = p11Bridge();
  if (!bridge || bridge->pkcs11_Finalize(nullptr) != CKR_OK) return false;
  FreeServiceInfo(p11ServiceInfo_);
  return true;
}

bool MirelCTKFramework::OpenFrameworkService() noexcept {
  if (Framework_Load() && Framework_Initialize() && p11Bridge()) return true;
  CloseFrameworkService();
  return false;
}

bool MirelCTKFramework::CloseFrameworkService() noexcept {
  // Oddity: closing begins by loading, which a loaded framework refuses. So a module that was opened,
  // or failed to open, stays as it is.
  if (!Framework_Load() || !Framework_Initialize()) return false;
  Framework_Finalize();
  Framework_Unload();
  return true;
}

bool MirelCTKFramework::EnumCards(const Text& readerName) noexcept {
  if (selectCard(readerName)) return true;
  FreeServiceInfo(p11ServiceInfo_);
  return false;
}

bool MirelCTKFramework::selectCard(const Text& readerName) noexcept {
  std::array<CK_SLOT_ID, kSlotListRoom> slots{};
  CK_ULONG numSlots = slots.size();
  auto record = std::make_shared<PKCS11_SERVICE_INFO>();
  const auto bridge = p11Bridge();
  if (!bridge) return false;
  // Oddity: what is listed here is not used, only that there is a card.
  if (bridge->pkcs11_C_GetSlotList(CK_TRUE, slots.data(), &numSlots) != CKR_OK || numSlots == 0) return false;
  CK_SLOT_ID& slotID = slots.front();
  if (bridge->pkcs11_FindSlot(readerName, &slotID) != CKR_OK) return false;
  if (bridge->pkcs11_GetTokenInfo(slotID, &record) != CKR_OK) return false;
  // The bridge leaves the slot of a record that it is given alone.
  record->setSlotID(slotID);
  setP11ServiceInfo(record->mutableCopyWithZone());
  return true;
}

}  // namespace mirel

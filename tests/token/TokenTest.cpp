#include "token/TokenTest.h"

#include <filesystem>
#include <sstream>

#include "token/MirelCTKTokenKeychainKey.h"
#include "token/MirelSCTokenDriver.h"

namespace mirel::test {
namespace {

constexpr unsigned kDigitalSignature = 1U << 0U;

std::string constraintsText(const std::optional<TKTokenConstraints>& constraints) {
  if (!constraints) return "no constraints";
  std::string text = "{";
  for (const auto& [operation, constraint] : *constraints) {
    if (text != "{") text += ", ";
    text += std::to_string(static_cast<std::int64_t>(operation)) + ": " + constraint.toUtf8();
  }
  return text + "}";
}

std::string certificateText(const TKTokenKeychainCertificate& item) {
  return "certificate " + item.objectID().toUtf8() + ", label " + item.label().toUtf8();
}

std::string keyText(const MirelCTKTokenKeychainKey& item) {
  std::string text = "key " + item.objectID().toUtf8() + ", label " + item.label().toUtf8() +
                     ", certificate " + item.certificateID().toUtf8();
  if (item.canSign()) text += ", can sign";
  if (item.canDecrypt()) text += ", can decrypt";
  if (item.canPerformKeyExchange()) text += ", can exchange keys";
  if (item.suitableForLogin()) text += ", for login";
  if (item.alwaysAuthenticate()) text += ", PIN always";
  return text + ", " + constraintsText(item.constraints());
}

std::string itemText(const TKTokenKeychainItem* item) {
  if (const auto* certificate = dynamic_cast<const TKTokenKeychainCertificate*>(item)) {
    return certificateText(*certificate);
  }
  if (const auto* key = dynamic_cast<const MirelCTKTokenKeychainKey*>(item)) return keyText(*key);
  return item ? "an item of another class" : "a null item";
}

}  // namespace

TokenTest::TokenTest() { resetCard(); }

void TokenTest::resetCard() {
  script.reset();
  setCertificate({.keyUsage = kDigitalSignature});
}

PlatformServices TokenTest::services() const {
  PlatformServices services = ModuleTest::services();
  services.tokenKit = kit;
  return services;
}

void TokenTest::takeModuleAway() {
  otherHome_.emplace(std::filesystem::path{});
  user = std::make_shared<FakeUserDirectory>("alice", otherHome_->home());
}

void TokenTest::setCertificate(const CertificateRequest& request) {
  Object& object = script.object(kCertificate);
  object = object.with(CKA_VALUE, testCertificate(request));
}

void TokenTest::addKeyAndCertificate(Value id, Value label, const CertificateRequest& request) {
  script.addObject(ecPublicKey(id, label, p256Params(), p256Point(0x11)));
  script.addObject(certificate(std::move(id), std::move(label), testCertificate(request)));
}

std::shared_ptr<TKSmartCardToken> TokenTest::insert(TKErrorPointer outError, const Text& readerName) {
  MirelSCTokenDriver driver{services()};
  return driver.createTokenForSmartCard(systemDriver, std::make_shared<FakeSmartCard>(readerName), Bytes{},
                                        outError);
}

std::shared_ptr<MirelSCToken> TokenTest::newToken() {
  base_ = std::make_shared<FakeSmartCardToken>(kit->script);
  return std::make_shared<MirelSCToken>(services(), base_);
}

std::shared_ptr<MirelSCToken> TokenTest::init(const std::shared_ptr<MirelSCToken>& token,
                                              TKErrorPointer outError, const Text& readerName) {
  return token->initWithSmartCard(std::make_shared<FakeSmartCard>(readerName), Bytes{}, systemDriver,
                                  outError);
}

std::string TokenTest::moduleLine() const {
  return "process: [-[P11Bridge pkcs11_Load:]-30] P11Bridge path = " +
         (otherHome_ ? *otherHome_ : home).modulePath();
}

std::vector<std::string> itemTexts(const std::vector<std::shared_ptr<TKTokenKeychainItem>>& items) {
  std::vector<std::string> texts;
  texts.reserve(items.size());
  for (const auto& item : items) texts.push_back(itemText(item.get()));
  return texts;
}

std::vector<std::string> itemTexts(const TKSmartCardToken& token) {
  return itemTexts(token.keychainContents()->items());
}

std::string shown(std::string_view className, const void* object) {
  if (!object) return "(null)";
  std::ostringstream text;
  text << '<' << className << ": " << object << '>';
  return text.str();
}

}  // namespace mirel::test

#include "token/MirelCTKTokenKeychainKey.h"

#include "platform/Log.h"

namespace mirel {
namespace {

constexpr const char* kUnit = "MirelSCToken";
constexpr int kStartLine = 15;
constexpr int kEndLine = 21;

}  // namespace

MirelCTKTokenKeychainKey::MirelCTKTokenKeychainKey(PlatformServices services,
                                                   std::shared_ptr<TKTokenKeychainKey> base) noexcept
    : services_{std::move(services)}, base_{std::move(base)} {}

bool MirelCTKTokenKeychainKey::initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                                   const Text& objectID, const Text& certificateID,
                                                   bool alwaysAuthenticate) noexcept {
  services_.log->systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, kStartLine));
  const bool made = initWithCertificate(certificate, objectID);
  if (made) {
    certificateID_.set(certificateID);
    alwaysAuthenticate_ = alwaysAuthenticate;
  }
  services_.log->systemDefault(logLine("CTK [%s-%d] ---END---", kUnit, kEndLine));
  return made;
}

}  // namespace mirel

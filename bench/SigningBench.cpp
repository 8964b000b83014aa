// signing_bench MODULE RUNS PIN-FILE
//
// Signs with the first RSA key of the first initialised card RUNS times in one process, in turn by a whole
// `signData` of a token session and by the bridge's C_SignInit and C_Sign alone in the same card session, and
// prints one table row: the median times, their ratio, the Cryptoki calls of one `signData`, and the share of
// it that is spent outside the module. The clock is read around every call, and that counts as outside.

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "HostToken.h"
#include "Measuring.h"
#include "bridge/P11Bridge.h"
#include "bridge/PKCS11_SERVICE_INFO.h"
#include "framework/MirelCTKFramework.h"
#include "host/Host.h"
#include "host/KeyChoice.h"
#include "host/ModuleFile.h"
#include "provider/CryptTKitSProvider.h"

namespace {

using namespace mirel;
using namespace mirel::bench;

[[noreturn]] void fail(const char* message) {
  (void)std::fprintf(stderr, "signing_bench: %s\n", message);
  std::exit(2);
}

template <typename Value>
Value valueOf(Result<Value> outcome, const char* what) {
  if (!outcome) {
    (void)std::fprintf(stderr, "%s: %s\n", outcome.failure().what.c_str(), outcome.failure().why.c_str());
    fail(what);
  }
  return *std::move(outcome);
}

void logIn(HostTokenSession& session, const char* pinFile) {
  std::string pin;
  std::ifstream{pinFile} >> pin;
  const auto operation = session.beginAuthForOperation(Text{u"PIN"}, nullptr);
  const auto entered = SecretText::fromUtf8({reinterpret_cast<const std::uint8_t*>(pin.data()), pin.size()});
  if (!operation->finishWithPIN(entered, nullptr)) fail("the card does not accept the PIN");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) fail("usage: signing_bench MODULE RUNS PIN-FILE");
  const int runs = std::atoi(argv[2]);  // NOLINT(cert-err34-c): 0 is refused
  if (runs < 1) fail("RUNS must be 1 or more");

  const auto clock = std::make_shared<CallClock>();
  PlatformServices services = systemServices();
  services.log = std::make_shared<QuietLog>();
  if (!chooseModule(services, {argv[1], true})) fail("there is no such module");
  services.observer = clock;
  Host host{services};
  const InsertedCard card = valueOf(host.insert(Text{}), "there is no card");
  const auto session = card.token->createSessionWithError(nullptr);
  if (!session) fail("there is no session");
  logIn(*session, argv[3]);

  PublishedKey key;
  for (const PublishedKey& candidate : keysOf(card)) {
    if (candidate.keyType == CertificateKeyType::kRSA && candidate.canSign) key = candidate;
  }
  std::vector<std::uint8_t> block(static_cast<std::size_t>(key.keySizeInBits) / 8, 0x5A);
  if (block.empty()) fail("there is no RSA key for signing");
  block.front() = 0;
  const Bytes data{block};
  const HostKeyAlgorithm algorithm{SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureRaw};

  const auto framework = session->core()->sp()->pCTKFramework();
  std::vector<double> whole;
  std::vector<double> outside;
  std::vector<double> bare;
  for (int run = 0; run <= runs; ++run) {
    clock->reset(false);
    const auto start = Clock::now();
    const Bytes signature = session->signData(data, key.objectID, algorithm, nullptr);
    const Microseconds elapsed = Clock::now() - start;
    if (signature.size() != block.size()) fail("the card does not sign");
    const double share = (elapsed - clock->inModule()).count() / elapsed.count();

    const CK_SESSION_HANDLE cardSession = framework->p11ServiceInfo()->hSession();
    const auto record = session->core()->sp()->getKeyFromCertID(key.objectID);
    CK_OBJECT_HANDLE privateKey = 0;
    if (framework->p11Bridge()->pkcs11_getCorrespondingPrivateKey(cardSession, record->hPubKey(),
                                                                  &privateKey) != CKR_OK)
      fail("there is no private key");
    std::vector<CK_BYTE> room(512);
    CK_ULONG length = room.size();
    const auto bareStart = Clock::now();
    const bool made =
        framework->p11Bridge()->pkcs11_genSignaturePKCS1(cardSession, privateKey, block.data(), block.size(),
                                                         room.data(), &length, room.size()) == CKR_OK;
    const Microseconds bareElapsed = Clock::now() - bareStart;
    if (!made) fail("the module does not sign");
    if (run == 0) continue;
    whole.push_back(elapsed.count());
    outside.push_back(share);
    bare.push_back(bareElapsed.count());
  }
  clock->reset(false);
  (void)session->signData(data, key.objectID, algorithm, nullptr);
  std::printf("| %zu | %.0f | %.0f | %.2f | %ld | %.1f %% |\n", keysOf(card).size(), median(whole),
              median(bare), median(whole) / median(bare), clock->numCalls(), 100 * median(outside));
  return 0;
}

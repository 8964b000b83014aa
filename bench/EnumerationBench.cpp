// enumeration_bench MODULE RUNS [--calls]
//
// Lists the keys and certificates of the first initialised card of a PKCS #11 module RUNS times in one
// process (after a first time that is not counted) and prints one table row: how many there are, the
// Cryptoki calls of one listing, its median time, and the share of it that is spent outside the module.
// The clock is read around every call, and that counts as outside. With --calls also each function's
// number of calls.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Measuring.h"
#include "bridge/P11Bridge.h"
#include "framework/MirelCTKFramework.h"
#include "host/ModuleFile.h"

namespace {

using namespace mirel;
using namespace mirel::bench;

[[noreturn]] void fail(const char* message) {
  (void)std::fprintf(stderr, "enumeration_bench: %s\n", message);
  std::exit(2);
}

/// The description of the first slot whose token is initialised.
Text firstCard(MirelCTKFramework& framework) {
  const auto bridge = framework.p11Bridge();
  std::vector<CK_SLOT_ID> slots(10);
  CK_ULONG numSlots = 0;
  if (bridge->pkcs11_C_GetSlotList(CK_TRUE, slots.data(), &numSlots) != CKR_OK) fail("there is no card");
  slots.resize(std::min<std::size_t>(numSlots, slots.size()));
  for (const CK_SLOT_ID slot : slots) {
    std::shared_ptr<PKCS11_SERVICE_INFO> record;
    if (bridge->pkcs11_GetTokenInfo(slot, &record) != CKR_OK) continue;
    if ((record->tokenInfo().flags & CKF_TOKEN_INITIALIZED) == 0) continue;
    const CK_SLOT_INFO info = record->slotInfo();
    return Text::fromBytes(info.slotDescription);
  }
  fail("there is no initialised card");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) fail("usage: enumeration_bench MODULE RUNS [--calls]");
  const int runs = std::atoi(argv[2]);  // NOLINT(cert-err34-c): 0 is refused
  if (runs < 1) fail("RUNS must be 1 or more");
  const bool showCalls = argc > 3 && std::string{argv[3]} == "--calls";

  const auto clock = std::make_shared<CallClock>();
  PlatformServices services = systemServices();
  services.log = std::make_shared<QuietLog>();
  if (!chooseModule(services, {argv[1], true})) fail("there is no such module");
  services.observer = clock;
  MirelCTKFramework framework{services};
  if (!framework.OpenFrameworkService()) fail("the module cannot be opened");
  const Text card = firstCard(framework);
  if (!framework.EnumCards(card) || !framework.OpenCardSession(card, nullptr))
    fail("the card cannot be opened");

  std::vector<double> total;
  std::vector<double> outside;
  for (int run = 0; run <= runs; ++run) {
    clock->reset(showCalls && run == 1);
    const auto start = Clock::now();
    if (!framework.EnumCardKeys(card)) fail("the card cannot be listed");
    const Microseconds elapsed = Clock::now() - start;
    if (run == 0) continue;
    total.push_back(elapsed.count());
    outside.push_back((elapsed - clock->inModule()).count() / elapsed.count());
  }
  const auto record = framework.p11ServiceInfo();
  const int keys = record->m_keyIndex();
  std::printf("| %d | %d | %ld | %.0f | %.1f | %.1f %% |\n", keys, record->m_certIndex(), clock->numCalls(),
              median(total), keys > 0 ? median(total) / keys : 0.0, 100 * median(outside));
  for (const auto& [function, count] : clock->calls())
    std::printf("    %-22s %ld\n", function.c_str(), count);
  return 0;
}

/// soak INSERTIONS SIGNATURES
///
/// Inserts the scripted module's card so many times, each time with the look at it that doctor takes, and
/// signs so many times with the last one, in one process. Prints what the process holds after every tenth:
/// memory, file descriptors, threads, and sessions of the module. The exit code is 1 when any of them has
/// grown from the second tenth, when everything is in use that is made once, to the last.
///
/// What is left open by design is counted apart: one session for the insertion and one for each login, until
/// the card is taken out. In each tenth of the signatures a new client logs in.

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "host/Host.h"
#include "host/InputSource.h"
#include "host/KeyChoice.h"
#include "host/KeyClient.h"
#include "host/ModuleFile.h"
#include "host/PinSource.h"
#include "host/SoftwareKey.h"
#include "module/ModuleFiles.h"
#include "platform/SecretText.h"
#include "support/QuietLog.h"
#include "support/ScriptedModule.h"

namespace mirel::test {
namespace {

constexpr int kTenths = 10;

// What may come and go with chance: lists that double, and pages that the C library has cut up.
constexpr long kMemoryThatVaries = 16L * 1024;
constexpr long kPagesThatVary = 1024L * 1024;

/// Blocks that a thread keeps for its next use count as in use.
constexpr const char* kTunables = "GLIBC_TUNABLES";
constexpr const char* kNoneKept = "glibc.malloc.tcache_count=0";

struct Held {
  long inUse = 0;     // bytes that were asked for and not given back
  long resident = 0;  // bytes
  long descriptors = 0;
  long threads = 0;
  long sessions = 0;  // other than those that are left open by design
};

long entriesOf(const char* folder) {
  return std::distance(std::filesystem::directory_iterator{folder}, std::filesystem::directory_iterator{});
}

Held held(long sessionsByDesign) {
  Held now;
  now.inUse = static_cast<long>(mallinfo2().uordblks);
  long pages = 0;
  std::ifstream{"/proc/self/statm"} >> pages >> pages;
  now.resident = pages * sysconf(_SC_PAGESIZE);
  now.descriptors = entriesOf("/proc/self/fd");
  now.threads = entriesOf("/proc/self/task");
  now.sessions = static_cast<long>(scriptedModule().openSessions().size()) - sessionsByDesign;
  return now;
}

/// Prints what is held after each tenth, and compares.
class Tenths {
 public:
  explicit Tenths(const char* what) {
    std::printf(
        "\n| %s | in use, KiB | resident, KiB | descriptors | threads | sessions | left open by design |\n"
        "|---|---|---|---|---|---|---|\n",
        what);
  }

  void note(long done, long sessionsByDesign) {
    last_ = held(sessionsByDesign);
    if (++numNoted_ == 2) second_ = last_;
    std::printf("| %ld | %ld | %ld | %ld | %ld | %ld | %ld |\n", done, last_.inUse / 1024,
                last_.resident / 1024, last_.descriptors, last_.threads, last_.sessions, sessionsByDesign);
    (void)std::fflush(stdout);
  }

  [[nodiscard]] bool areFlat() const {
    const struct {
      const char* name;
      long second;
      long last;
      long mayVary;
    } rows[] = {{"memory in use", second_.inUse, last_.inUse, kMemoryThatVaries},
                {"resident memory", second_.resident, last_.resident, kPagesThatVary},
                {"descriptors", second_.descriptors, last_.descriptors, 0},
                {"threads", second_.threads, last_.threads, 0},
                {"sessions", 0, last_.sessions, 0}};
    bool flat = true;
    for (const auto& [name, second, last, mayVary] : rows) {
      if (last <= second + mayVary) continue;
      std::printf("GROWS: %s, from %ld to %ld\n", name, second, last);
      flat = false;
    }
    return flat;
  }

 private:
  int numNoted_ = 0;
  Held second_;
  Held last_;
};

[[noreturn]] void fail(const Failure& failure) {
  throw std::runtime_error{failure.what + ": " + failure.why};
}

class RightPin final : public PinSource {
 public:
  Result<std::shared_ptr<const SecretText>> askForPin(const std::string&) override {
    return std::make_shared<const SecretText>(u"123456");
  }
  void showRefusal(const std::string&) override {}
  bool canAskAgain() const override { return false; }
};

class Message final : public InputSource {
 public:
  Result<std::size_t> read(std::span<std::uint8_t> room) override {
    if (done_) return std::size_t{0};
    done_ = true;
    room.front() = 'x';
    return std::size_t{1};
  }

 private:
  bool done_ = false;
};

Card cardWithKey() {
  const SoftwareKey& key = SoftwareKey::rsa(2048, "faults");
  Script& script = scriptedModule();
  script.reset();
  script.card().objects.clear();
  const Value id{1};
  const Value label = bytesOf("Signer");
  script.addObject(rsaPublicKey(id, label, key.modulus()));
  script.addObject(rsaPrivateKey(id, label, key.modulus()));
  script.addObject(certificate(id, label, key.certificate(1U << 0U)));
  return script.card();
}

bool insertOften(Host& host, const Card& card, long insertions) {
  Script& script = scriptedModule();
  Tenths tenths{"insertions"};
  for (long i = 1; i <= insertions; ++i) {
    const auto inserted = host.insert(Text{});
    if (!inserted) fail(inserted.failure());
    if (host.examine(*inserted).keys.size() != 1) throw std::runtime_error{"the card is not seen as it is"};
    if (i % (insertions / kTenths) == 0) tenths.note(i, 1);
    script.pullCard();
    script.forgetPulledSessions();
    script.insertCard(card);
    script.forgetCalls();
  }
  return tenths.areFlat();
}

bool signOften(Host& host, long signatures) {
  const auto card = host.insert(Text{});
  if (!card) fail(card.failure());
  const auto keys = keysOf(*card);
  Tenths tenths{"signatures"};
  RightPin pins;
  std::unique_ptr<KeyClient> client;
  long logins = 0;
  for (long i = 0; i < signatures; ++i) {
    if (i % (signatures / kTenths) == 0) {
      auto another = host.newClient(*card);
      if (!another) fail(another.failure());
      client = *std::move(another);
      ++logins;
    }
    Message message;
    const auto made = client->sign(
        keys.front(), SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA256, message, pins);
    if (!made) fail(made.failure());
    if (made->fault || made->value.size() != 256) throw std::runtime_error{"there is no signature"};
    scriptedModule().forgetCalls();
    if ((i + 1) % (signatures / kTenths) == 0) tenths.note(i + 1, 1 + logins);
  }
  return tenths.areFlat();
}

int start(int argc, char** argv) {
  const long insertions = argc == 3 ? std::strtol(argv[1], nullptr, 10) : 0;
  const long signatures = argc == 3 ? std::strtol(argv[2], nullptr, 10) : 0;
  if (insertions < kTenths || signatures < kTenths) {
    (void)std::fputs("usage: soak INSERTIONS SIGNATURES (10 at least, each)\n", stderr);
    return 2;
  }
  if (!std::getenv(kTunables)) {
    (void)setenv(kTunables, kNoneKept, 1);
    (void)execv("/proc/self/exe", argv);
    throw std::runtime_error{"the program cannot be started anew"};
  }
  const Card card = cardWithKey();
  PlatformServices services = systemServices();
  services.log = std::make_shared<QuietLog>();
  if (const auto chosen = chooseModule(services, {kScriptedModule, true}); !chosen) fail(chosen.failure());
  Host host{services};
  const bool insertionsAreFlat = insertOften(host, card, insertions);
  const bool signaturesAreFlat = signOften(host, signatures);
  return insertionsAreFlat && signaturesAreFlat ? 0 : 1;
}

}  // namespace
}  // namespace mirel::test

int main(int argc, char** argv) {
  try {
    return mirel::test::start(argc, argv);
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "soak: %s\n", error.what());
    return 2;
  }
}

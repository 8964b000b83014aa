#include "Surroundings.h"

#include <algorithm>
#include <cstdlib>

#include "Check.h"
#include "platform/CardService.h"
#include "platform/Certificate.h"
#include "platform/CryptokiObserver.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/Hex.h"
#include "platform/LocalizedStrings.h"
#include "platform/Log.h"
#include "platform/Memory.h"
#include "support/FakeCardService.h"
#include "support/FakeUserDirectory.h"

namespace mirel::fuzz {
namespace {

/// Looks at every line for the secrets.
class SearchedLog final : public Log {
 public:
  explicit SearchedLog(std::vector<std::string> secrets) : secrets_{std::move(secrets)} {}

  void systemDefault(std::string_view line) noexcept override { search(line); }
  void systemError(std::string_view line) noexcept override { search(line); }
  void process(std::string_view line) noexcept override { search(line); }

  void search(std::string_view text) const {
    for (const std::string& secret : secrets_)
      check(text.find(secret) == std::string_view::npos, "nobody is told a PIN");
  }

 private:
  std::vector<std::string> secrets_;
};

/// The heap, of which the input may have the n-th request refused, and sizes that no honest card needs.
class CountedMemory final : public Memory {
 public:
  static constexpr std::size_t kLargest = std::size_t{1} << 20U;

  [[nodiscard]] void* allocate(std::size_t size) noexcept override {
    check(size > 0, "no empty block is asked for");
    const bool refused = failsAt > 0 && --failsAt == 0;
    if (refused || size > kLargest) {
      ranOut = true;
      return nullptr;
    }
    void* const block = std::calloc(1, size);
    if (block) ++numOut;
    return block;
  }
  void release(void* block) noexcept override {
    if (!block) return;
    --numOut;
    std::free(block);
  }

  std::size_t failsAt = 0;  ///< the request that is refused, from 1; 0: none
  std::size_t numOut = 0;
  bool ranOut = false;
};

class CheckedObserver final : public CryptokiObserver {
 public:
  void callStarts(const char* function) noexcept override {
    check(function && !underWay, "calls start one after the other");
    underWay = function;
  }
  void callReturned(const char* function, std::uint64_t) noexcept override {
    check(underWay == function, "the call that started returns");
    underWay = nullptr;
  }
  void operationReturned(BridgeOperation, std::uint64_t) noexcept override {}

  const char* underWay = nullptr;
};

/// The system's parser. The certificates of the good card it has read once, for all runs: that takes longer
/// than most of what a run does.
class ParserForRuns final : public CertificateParser {
 public:
  ParserForRuns() {
    for (const test::Value& der : goodCertificates()) good_.push_back(next_->createWithData(Bytes{der}));
  }

  [[nodiscard]] std::shared_ptr<SecCertificate> createWithData(const Bytes& der) noexcept override {
    const auto found =
        std::find_if(good_.begin(), good_.end(), [&](const auto& one) { return one->data() == der; });
    return found != good_.end() ? *found : next_->createWithData(der);
  }

 private:
  std::shared_ptr<CertificateParser> next_ = systemCertificateParser();
  std::vector<std::shared_ptr<SecCertificate>> good_;
};

class NoNotifications final : public DistributedNotificationCenter {
 public:
  void postNotificationName(const Text&, const Text&, bool) noexcept override {}
};

class EnglishStrings final : public LocalizedStrings {
 public:
  [[nodiscard]] Text localizedString(std::string_view key) noexcept override {
    return Text::fromUtf8(englishString(key));
  }
};

CardServiceView serviceFrom(Input& input) {
  using State = CardServiceView::State;
  CardServiceView view;
  view.state = input.flag() ? State::kAnswers : input.flag() ? State::kSilent : State::kNotThere;
  if (view.state != State::kAnswers) view.evidence = "it is as the input says";
  const std::size_t numReaders = view.state == State::kAnswers ? input.below(4) : 0;
  for (std::size_t i = 0; i < numReaders; ++i) {
    const auto name = input.bytes(128);
    const std::uint8_t facts = input.byte();
    view.readers.push_back({std::string{name.begin(), name.end()},
                            static_cast<ServiceReader::Card>(facts % 4), (facts & 4U) != 0, (facts & 8U) != 0,
                            (facts & 16U) != 0 ? "3B00" : ""});
  }
  return view;
}

/// The PINs, each also in hexadecimal digits, as far as the input does not have them, nor what is shown of
/// it: an escape ends with digits.
std::vector<std::string> secretsOf(const std::vector<std::string>& pins,
                                   std::span<const std::uint8_t> input) {
  std::string given{input.begin(), input.end()};
  given += printableLine(given);
  const auto isGiven = [&](const std::string& text) { return given.find(text) != std::string_view::npos; };
  std::vector<std::string> secrets;
  for (const std::string& pin : pins) {
    if (isGiven(pin)) continue;
    const std::span bytes{reinterpret_cast<const std::uint8_t*>(pin.data()), pin.size()};
    for (const std::string& text :
         {pin, hexOfBytes(bytes, HexDigits::kUpper), hexOfBytes(bytes, HexDigits::kLower)}) {
      if (!isGiven(text)) secrets.push_back(text);
    }
  }
  return secrets;
}

}  // namespace

struct Surroundings::Parts {
  explicit Parts(std::vector<std::string> secrets) : log{std::make_shared<SearchedLog>(std::move(secrets))} {}

  std::shared_ptr<SearchedLog> log;
  std::shared_ptr<CountedMemory> memory = std::make_shared<CountedMemory>();
  std::shared_ptr<CheckedObserver> observer = std::make_shared<CheckedObserver>();
  std::shared_ptr<test::FakeCardService> cardService;
};

Surroundings::Surroundings(Input& input, std::vector<std::string> pins)
    : parts_{std::make_unique<Parts>(secretsOf(pins, input.rest()))} {
  const std::uint8_t what = input.byte();
  if ((what & 1U) != 0) parts_->memory->failsAt = input.byte() + std::size_t{1};
  if ((what & 2U) == 0) return;
  parts_->cardService = std::make_shared<test::FakeCardService>();
  parts_->cardService->view = serviceFrom(input);
}

Surroundings::~Surroundings() {
  check(parts_->memory->numOut == 0, "all memory is given back");
  check(!parts_->observer->underWay, "no call is under way at the end");
}

PlatformServices Surroundings::services(EditedModule& module) const {
  PlatformServices all = services();
  all.loader = module.loader();
  return all;
}

PlatformServices Surroundings::services() const {
  const auto user = std::make_shared<test::FakeUserDirectory>("alice", "/home/alice");
  static const auto notifications = std::make_shared<NoNotifications>();
  static const auto strings = std::make_shared<EnglishStrings>();
  static const auto certificates = std::make_shared<ParserForRuns>();
  PlatformServices services;
  services.user = user;
  services.log = parts_->log;
  services.notifications = notifications;
  services.certificates = certificates;
  services.memory = parts_->memory;
  services.strings = strings;
  services.observer = parts_->observer;
  services.inspectionObserver = parts_->observer;
  services.cardService = parts_->cardService;
  return services;
}

void Surroundings::checkSecrecy(std::string_view text) const { parts_->log->search(text); }

bool Surroundings::ranOutOfMemory() const { return parts_->memory->ranOut; }

}  // namespace mirel::fuzz

#include "Session.h"

#include "PinEntry.h"
#include "host/Display.h"

namespace mirel::cli {

Session::Session(PlatformServices services, const Options& options)
    : options_{options}, host_{std::move(services), options.modulePath.value_or(std::string{})} {}

Session::~Session() = default;

Text Session::readerName() const { return options_.reader ? Text::fromUtf8(*options_.reader) : Text{}; }

Result<std::vector<Reader>> Session::readers() { return host_.readers(readerName()); }

Result<void> Session::insertCard() {
  auto inserted = host_.insert(readerName());
  if (!inserted) return inserted.failure();
  card_ = *std::move(inserted);
  return {};
}

Result<void> Session::connect() {
  if (auto inserted = insertCard(); !inserted) return inserted;
  auto client = host_.newClient(card());
  if (!client) return client.failure();
  client_ = *std::move(client);
  pins_ = pinSourceFor(options_, [this] { return host_.pinState(card().reader); });
  return {};
}

Unpublished Session::unpublishedObjects() { return host_.unpublishedObjects(card()); }

Result<ChosenKey> Session::chosenKey() const {
  return chooseKey(card(), options_.key.value_or(std::string{}));
}

std::string Session::remarkOnPin() {
  const auto state = host_.pinState(card().reader);
  return state ? state->text : std::string{};
}

Result<SecKeyAlgorithm> Session::algorithmOr(SecKeyAlgorithm byDefault) const {
  if (!options_.algorithm) return byDefault;
  if (const auto algorithm = secKeyAlgorithmNamed(*options_.algorithm)) return *algorithm;
  return Failure{FailureKind::kWrongUsage, "wrong usage",
                 "there is no algorithm \"" + displayed(Text::fromUtf8(*options_.algorithm)) + "\"",
                 "see the names with: mireltoken algorithms"};
}

Result<KeyRequest> Session::connectFor(SecKeyAlgorithm byDefault) {
  const auto algorithm = algorithmOr(byDefault);
  if (!algorithm) return algorithm.failure();
  if (const auto writable = checkWriting(options_.out); !writable) return writable.failure();
  auto input = FileInput::open(options_.in, !options_.json && !options_.verbose);
  if (!input) return input.failure();

  if (const auto connected = connect(); !connected) return connected.failure();
  const auto chosen = chosenKey();
  if (!chosen) return chosen.failure();
  return KeyRequest{*algorithm, *std::move(input), *chosen};
}

Result<void> Session::write(std::span<const std::uint8_t> data, mode_t mode) const {
  return writeFile(options_.out, data, mode);
}

}  // namespace mirel::cli

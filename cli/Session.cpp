#include "Session.h"

#include "PinEntry.h"
#include "Worker.h"
#include "host/AlgorithmNames.h"
#include "host/Display.h"
#include "host/KeyAbility.h"

namespace mirel::cli {

Session::Session(PlatformServices services, const Options& options, ModuleChoice module)
    : options_{options},
      services_{std::move(services)},
      module_{std::move(module)},
      host_{services_, options.modulePath.value_or(std::string{})} {}

Session::~Session() = default;

Text Session::readerName() const { return options_.reader ? Text::fromUtf8(*options_.reader) : Text{}; }

Result<std::vector<Reader>> Session::readers() { return host_.readers(readerName()); }

Result<void> Session::insertCard() {
  auto inserted = host_.insert(readerName());
  if (!inserted) return inserted.failure();
  card_ = *std::move(inserted);
  return {};
}

Result<void> Session::insertCardFrom(const Text& reader) {
  auto inserted = host_.insertFrom(reader);
  if (!inserted) return inserted.failure();
  card_ = *std::move(inserted);
  return {};
}

Result<void> Session::connect() {
  if (auto inserted = insertCard(); !inserted) return inserted;
  auto client = host_.newClient(card());
  if (!client) return client.failure();
  client_ = *std::move(client);
  client_->whenItFails(noteFailure);
  CardGuard guard = guardOf(services_.cardService, card().reader.name);
  guard.whyGone = [this] { return host_.whyGone(card()); };
  pins_ = pinSourceFor(
      options_, [this] { return host_.pinState(card().reader); }, std::move(guard));
  return {};
}

CardReport Session::examine(bool afterLogin) { return host_.examine(card(), afterLogin); }

Failure Session::explained(Failure failure, const PublishedKey& key) {
  if (failure.isCauseKnown) return failure;
  noteFailure(failure);
  return explainedBy(examine(true), key, std::move(failure));
}

Result<ChosenKey> Session::chosenKey() const {
  return chooseKey(card(), options_.key.value_or(std::string{}));
}

std::string Session::remarkOnPin() {
  const auto state = host_.pinState(card().reader);
  return state ? state->text : std::string{};
}

Failure Session::withRemarkOnPin(Failure failure) {
  if (failure.kind != FailureKind::kPinWrong || !card_) return failure;
  noteFailure(failure);
  const std::string remark = remarkOnPin();
  if (!remark.empty()) failure.why.append(", ").append(remark);
  return failure;
}

Result<std::optional<SecKeyAlgorithm>> Session::namedAlgorithm(KeyOperation operation) const {
  if (!options_.algorithm) return std::optional<SecKeyAlgorithm>{};
  const std::string& name = *options_.algorithm;
  if (const auto algorithm = algorithmNamed(name, operation)) return algorithm;
  return Failure{
      FailureKind::kWrongUsage, "wrong usage",
      "there is no algorithm \"" + displayed(std::string_view{name}) + "\"" + suggestedAlgorithm(name),
      "see the names with: mireltoken algorithms --all"};
}

Result<KeyRequest> Session::connectFor(KeyOperation operation) {
  const auto algorithm = namedAlgorithm(operation);
  if (!algorithm) return algorithm.failure();
  if (const auto writable = checkWriting(options_.out); !writable) return writable.failure();
  auto input = FileInput::open(options_.in, !options_.json && options_.verbose == 0);
  if (!input) return input.failure();

  if (const auto connected = connect(); !connected) return connected.failure();
  const auto chosen = chosenKey();
  if (!chosen) return chosen.failure();
  return KeyRequest{algorithm->value_or(defaultAlgorithm(operation, chosen->key.keyType)), *std::move(input),
                    *chosen};
}

Result<void> Session::write(std::span<const std::uint8_t> data, mode_t mode) const {
  return writeFile(options_.out, data, mode);
}

}  // namespace mirel::cli

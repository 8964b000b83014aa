#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "ExitCode.h"
#include "Files.h"
#include "Options.h"
#include "host/Host.h"
#include "host/KeyChoice.h"
#include "host/KeyClient.h"
#include "host/PinSource.h"

namespace mirel::cli {

/// An inserted card and a client of its token.
struct KeyJob {
  InsertedCard card;
  std::unique_ptr<KeyClient> client;
  std::unique_ptr<PinSource> pins;
};

/// Inserts the card in the reader of the options.
[[nodiscard]] Result<KeyJob> startKeyJob(Host& host, const Options& options);

/// The key that the options name.
[[nodiscard]] Result<ChosenKey> keyOf(const InsertedCard& card, const Options& options);

/// All that it takes to use a key on data.
struct DataJob {
  SecKeyAlgorithm algorithm;
  std::unique_ptr<FileInput> input;
  KeyJob job;
  ChosenKey chosen;
};

/// Looks at everything in the options before the card is inserted. `byDefault`: the algorithm where they name
/// none.
[[nodiscard]] Result<DataJob> startDataJob(Host& host, const Options& options, SecKeyAlgorithm byDefault);

/// The bytes as hexadecimal digits.
[[nodiscard]] std::string hexOf(const Bytes& bytes);

}  // namespace mirel::cli

#pragma once

#include <functional>
#include <memory>
#include <string>

#include "CardAlarm.h"
#include "Options.h"
#include "host/PinSource.h"
#include "host/PinState.h"

namespace mirel::cli {

/// Asks the card what it says about its PIN just now.
using PinStateReader = std::function<Result<PinState>()>;

/// The watch over a card while its PIN is awaited.
struct CardGuard {
  std::function<std::unique_ptr<CardAlarm>()> watch;
  std::function<Failure()> whyGone;  ///< after an alarm
};

/// For the card in that reader: whyGone says no more than that it is gone.
[[nodiscard]] CardGuard guardOf(std::shared_ptr<CardService> service, const Text& reader);

/// Where the options say that the PIN comes from: a file, an open file descriptor (each read once), or the
/// terminal, whose prompt shows what the card says. A file or a descriptor gives no PIN that could lock the
/// card, unless the options allow it; none of them gives one to a card whose PIN is entered at the reader.
/// At the terminal the entry ends when `guard` gives an alarm. The user of a terminal, or of a descriptor,
/// may take any time: where the card has come to its last try meanwhile, the terminal asks once more, with a
/// warning, and a descriptor gives none.
[[nodiscard]] std::unique_ptr<PinSource> pinSourceFor(const Options& options, PinStateReader pinState,
                                                      CardGuard guard);

/// Whether the options' file gives a PIN, which is not kept. For commands that tell what the card does with
/// the PIN: that there is none is not the card's fault.
[[nodiscard]] Result<void> checkPinFile(const Options& options);

/// Whether the options' file descriptor can give a PIN, as far as that shows beforehand. To be asked before
/// anything is opened, because a file of ours could get the number of a closed one, and be taken for the PIN.
[[nodiscard]] Result<void> checkPinDescriptor(const Options& options);

}  // namespace mirel::cli

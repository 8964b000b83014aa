// Recordings of a module's calls: a file of any bytes, or the recording of the good card, which the input
// edits. What can be read is shown, has its names replaced, and answers in place of a module while a card is
// inserted.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "CardChecks.h"
#include "Check.h"
#include "EditedModule.h"
#include "Input.h"
#include "Presentable.h"
#include "Surroundings.h"
#include "host/Host.h"
#include "platform/Log.h"
#include "recording/AnonymousRecording.h"
#include "recording/CallText.h"
#include "recording/Recorder.h"
#include "recording/RecordingFile.h"
#include "recording/Replayer.h"

namespace mirel::fuzz {
namespace {

using namespace recording;

/// What is done with each card, be it recorded or replayed. Returns the number of its items, 0: there is no
/// card.
std::size_t useCard(const PlatformServices& services) {
  Host host{services};
  const auto card = host.insert(Text{});
  if (!card) {
    checkFailure(card.failure());
    lookAtReaders(host);
    return 0;
  }
  checkItems(*card);
  checkReport(host.examine(*card, true));
  return card->items.size();
}

// ---- The recording of the good card ----

class KeptRecords final : public RecordSink {
 public:
  void note(const Record& record) noexcept override { records.push_back(record); }
  std::vector<Record> records;
};

struct GoodRun {
  Recording recording;
  std::size_t numItems = 0;
};

GoodRun recordGoodRun() {
  Input nothing{{}};
  const Surroundings surroundings{nothing, {}};
  EditedModule module{nothing, kSigner};
  const auto kept = std::make_shared<KeptRecords>();
  PlatformServices services = surroundings.services(module);
  const ModuleNotes note = recordInto({kept}, services);
  note({});
  const std::size_t numItems = useCard(services);
  check(numItems > 0, "the good card is published");
  return {{{"0.1.0", {"items"}, 1'700'000'000, "module.so"}, kept->records}, numItems};
}

const GoodRun& goodRun() {
  static const GoodRun run = recordGoodRun();
  return run;
}

/// As "trace show" does.
void show(const Record& record) {
  if (const auto* const end = std::get_if<RecordedEnd>(&record))
    checkShown(printableLine(endText(*end)), "how a run ended");
  const auto* const call = std::get_if<RecordedCall>(&record);
  if (!call) return;
  checkShown(printableLine(subjectText(*call)), "what a call is about");
  check(resultOfText(resultText(call->result)) == call->result, "the text of a result is that result");
  (void)isFailure(*call);  // may be either
}

// ---- Edits ----

Value valueFrom(Input& input) {
  switch (input.below(8)) {
    case 0: return {NullPointer{}};
    case 1: {
      const ByteVector text = input.bytes(300);
      return {std::string{text.begin(), text.end()}};
    }
    case 2: return {input.bytes(300)};
    case 3: return {HiddenBytes{input.number()}};
    case 4: return {List{}};
    case 5: return {Fields{}};
    default: return {input.number()};
  }
}

/// The values of a structure or a list; none of anything else.
std::vector<Value*> partsOf(Value& value) {
  std::vector<Value*> parts;
  if (auto* const list = std::get_if<List>(&value.held)) {
    for (Value& one : *list) parts.push_back(&one);
  } else if (auto* const fields = std::get_if<Fields>(&value.held)) {
    for (NamedValue& field : *fields) parts.push_back(&field.value);
  }
  return parts;
}

/// Puts another value in the place of one, however deep it lies.
void editFields(Input& input, Fields& fields) {
  constexpr std::size_t kEndsHere = 0x0F;
  Value all{std::move(fields)};
  Value* place = &all;
  for (auto parts = partsOf(all); !parts.empty(); parts = partsOf(*place)) {
    const std::size_t which = input.byte();
    if (place != &all && which % 16 == kEndsHere) break;
    place = parts[which % parts.size()];
  }
  if (place != &all) *place = valueFrom(input);
  fields = std::move(std::get<Fields>(all.held));
}

void editRecord(Input& input, Record& record) {
  std::visit(
      [&](auto& one) {
        using Kind = std::decay_t<decltype(one)>;
        if constexpr (std::is_same_v<Kind, RecordedCall>) {
          const std::size_t part = input.below(8);
          if (part == 0) {
            one.result = input.number();
          } else {
            editFields(input, part == 1 ? one.in : one.out);
          }
        } else if constexpr (std::is_same_v<Kind, RecordedLoading>) {
          one.error = "the loader says why";
        } else if constexpr (std::is_same_v<Kind, RecordedTime>) {
          constexpr std::uint64_t kEnd = 9'000'000'000;  // seconds; a file takes no later date
          one.time = static_cast<std::int64_t>(input.number() % kEnd);
        }
      },
      record);
}

/// The process comes to a bad end in the call, or before what else stands there.
void endAt(Input& input, std::vector<Record>& records, std::size_t which) {
  using Kind = BadEnd::Kind;
  const auto kind = static_cast<Kind>(input.below(4));
  RecordedEnd end{.how = {.kind = kind}};
  if (kind == Kind::kCrashed || kind == Kind::kInterrupted) end.how.signal = "SIGSEGV";
  if (kind == Kind::kHung) end.how.seconds = input.byte();
  if (auto* const call = std::get_if<RecordedCall>(&records[which])) {
    call->out.clear();
    end.call = std::move(*call);
  }
  end.whileLoading = kind == Kind::kHung && !end.call;
  records.erase(records.begin() + static_cast<std::ptrdiff_t>(which), records.end());
  records.emplace_back(std::move(end));
}

/// Writes the record into a file and reads it again.
void passThroughFile(const Header& header, Record& record) {
  const std::string line = lineOf(record);
  ReadRecording read = readRecording(lineOf(header) + line);
  check(read.recording && read.recording->records.size() == 1 &&
            lineOf(read.recording->records.front()) == line,
        "a record is read as it was written");
  record = std::move(read.recording->records.front());
}

/// So that a file can have what comes out.
void edit(Input& input, Recording& recording) {
  constexpr int kMostEdits = 8;
  auto& records = recording.records;
  for (int i = 0; i < kMostEdits && !input.atEnd() && !records.empty(); ++i) {
    const std::size_t how = input.below(16);
    const std::size_t which = input.byte() % records.size();
    const auto at = records.begin() + static_cast<std::ptrdiff_t>(which);
    switch (how) {
      case 0: records.erase(at); break;
      case 1: records.insert(at, Record{*at}); break;
      case 2: std::swap(*at, records[(which + 1) % records.size()]); break;
      case 4: endAt(input, records, which); break;
      default:
        editRecord(input, *at);
        show(*at);
        break;
    }
    // Takes longer than all else, so that it is not done with each.
    if (how == 3) passThroughFile(recording.header, *at);
  }
}

// ---- What is done with a recording ----

struct Replayed {
  std::size_t numItems = 0;
  bool wasComplete = true;  ///< nothing was asked for that was not recorded
};

Replayed replay(Input& input, Recording recording) {
  const Surroundings surroundings{input, {}};
  Replayed replayed;
  const auto onMissing = [&replayed](const std::string& what) {
    check(isPrintableLine(printableLine(what)), "what is missing can be shown");
    replayed.wasComplete = false;
  };
  PlatformServices services = surroundings.services();
  const auto onEnd = [&replayed](const RecordedEnd&) { replayed.wasComplete = false; };
  const Replay running = replayInto(std::move(recording), onMissing, onEnd, services);
  (void)running.module();
  replayed.numItems = useCard(services);
  running.workIsDone();
  return replayed;
}

/// Names are replaced, and the recording has the same shape.
Recording anonymousForm(const Recording& recording) {
  const std::vector<std::string> users{"alice"};
  Recording anonymous = anonymousRecording(recording, users).recording;
  check(anonymous.records.size() == recording.records.size(), "no record gets lost with the names");
  return anonymous;
}

void tryFile(Input& input) {
  constexpr std::size_t kMostOfOurs = 100'000;
  const std::string text{input.rest().begin(), input.rest().end()};
  const ReadRecording read = readRecording(text, kMostOfOurs);
  check(read.recording.has_value() == read.refusal.empty(), "what is refused has a reason");
  if (!read.recording) return checkShown(printableLine(read.refusal), "why a file is refused");
  const std::string written = textOf(*read.recording);
  const ReadRecording again = readRecording(written);
  check(again.recording && !again.isCutOff && textOf(*again.recording) == written,
        "a file is read as it was written");
  std::for_each(read.recording->records.begin(), read.recording->records.end(), show);
  check(readRecording(textOf(anonymousForm(*read.recording))).recording.has_value(),
        "a file without names can be read");
  Input nothing{{}};
  (void)replay(nothing, *read.recording);
}

void tryEdited(Input& input, bool withoutNames) {
  const bool isGood = input.atEnd();
  Recording recording = goodRun().recording;
  edit(input, recording);
  if (withoutNames) recording = anonymousForm(recording);
  const Replayed replayed = replay(input, std::move(recording));
  check(!isGood || (replayed.wasComplete && replayed.numItems == goodRun().numItems),
        "a recording replays as it was recorded");
}

}  // namespace

void runTarget(Input& input) {
  switch (input.below(4)) {
    case 0: return tryFile(input);
    case 1: return tryEdited(input, true);
    default: return tryEdited(input, false);
  }
}

}  // namespace mirel::fuzz

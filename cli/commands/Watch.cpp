#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <map>
#include <thread>

#include "Commands.h"
#include "EventCommands.h"
#include "FindingText.h"
#include "Findings.h"
#include "HelperProcess.h"
#include "Json.h"
#include "Output.h"
#include "Session.h"
#include "WatchMessages.h"
#include "WatchSignals.h"
#include "host/ReaderWatch.h"
#include "platform/CardService.h"
#include "platform/Log.h"

namespace mirel::cli {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr seconds kPauseAfterCrash{1};  // of the card service's library
constexpr std::size_t kMostCards = 64;  // each has processes of its own, and a module may name any number

std::string timeNow(bool isForPrograms) {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  std::array<char, sizeof "2026-01-31T12:00:00Z"> text{};
  const bool known = (isForPrograms ? gmtime_r(&now, &parts) : localtime_r(&now, &parts)) != nullptr;
  const char* form = isForPrograms ? "%Y-%m-%dT%H:%M:%SZ" : "%Y-%m-%d %H:%M:%S";
  if (!known || std::strftime(text.data(), text.size(), form, &parts) == 0) return "not known";
  return text.data();
}

/// Standard output where it can be asked whether anybody reads it; else -1. Some systems ask no terminal.
int outputWithReader() {
  struct stat status {};
  const bool known = fstat(STDOUT_FILENO, &status) == 0;
  return known && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode)) ? STDOUT_FILENO : -1;
}

std::string countOf(std::size_t number, const char* what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

const char* nameOf(ReaderEvent::Kind kind) {
  return kind == ReaderEvent::Kind::kInsertion ? "insertion" : "removal";
}

/// What became of a card: a token, or why there is none; nothing of one that was taken out.
struct Outcome {
  std::optional<CardNews> card{};
  std::optional<ToldFailure> failure{};
};

std::string textOf(const CardNews& card) {
  std::string text = "\"" + displayed(card.tokenLabel) + "\" " + displayed(card.serialNumber) + ": " +
                     countOf(card.numKeys, "key") + ", " + countOf(card.numCertificates, "certificate");
  if (card.incomplete) text += "; " + wordsOf(*card.incomplete);
  if (!card.worst) return text + "; nothing is wrong with it";
  const Finding& worst = *card.worst;
  text.append("; ").append(entryOf(worst.id).code).append(" ").append(severityName(worst.severity));
  if (!worst.subject.empty()) text.append(", ").append(worst.subject);
  return text + ": " + causeText(worst);
}

std::string lineOf(const ReaderEvent& event, const Outcome& outcome) {
  std::string line = timeNow(false) + "  " + displayed(event.reader) + "  " + nameOf(event.kind);
  if (outcome.card) line += "  " + textOf(*outcome.card);
  if (outcome.failure) line += "  not published: " + wordsOf(*outcome.failure);
  return printableLine(line) + "\n";
}

std::string jsonTextOf(const ReaderEvent& event, const Outcome& outcome) {
  Json json{{"time", timeNow(true)}, {"event", nameOf(event.kind)}, {"reader", event.reader.toUtf8()}};
  if (const auto& card = outcome.card) {
    json["tokenLabel"] = card->tokenLabel.toUtf8();
    json["serialNumber"] = card->serialNumber.toUtf8();
    json["instanceID"] = card->instanceID.toUtf8();
    json["certificates"] = card->numCertificates;
    json["keys"] = card->numKeys;
    if (card->incomplete) json["incomplete"] = jsonOf(*card->incomplete);
    if (card->worst) json["worst"] = jsonOf(*card->worst);
  }
  if (outcome.failure) json["error"] = jsonOf(*outcome.failure);
  return jsonLine("watch", json);
}

/// Those whose name is the one of the options; where none has ever been, those whose name begins with it.
std::vector<WatchedReader> namedReaders(std::vector<WatchedReader> readers,
                                        const std::optional<std::string>& wanted, bool& ioIsWholeName) {
  if (!wanted) return readers;
  const auto isNamed = [&](const WatchedReader& reader) { return displayed(reader.name) == *wanted; };
  if (std::any_of(readers.begin(), readers.end(), isNamed)) ioIsWholeName = true;
  std::erase_if(readers, [&](const WatchedReader& reader) {
    return ioIsWholeName ? !isNamed(reader) : !displayed(reader.name).starts_with(*wanted);
  });
  return readers;
}

/// The card service's view, without end.
void followService(const PlatformServices& services, HelperLine& line) {
  const auto watch = services.cardService ? services.cardService->watch() : nullptr;
  if (!watch) return line.send(messageOf(CardServiceView{}));
  for (CardServiceView told; true;) {
    CardServiceView view = watch->next(seconds{60});
    if (!(view == told)) line.send(messageOf(view));
    told = std::move(view);
  }
}

void lookAtModule(const Session& watching, HelperLine& line) {
  Session session{watching.services(), watching.options(), watching.module()};
  const auto slots = session.slots();
  line.send(slots ? messageOf(watchedReaders(*slots)) : messageOf(slots.failure()));
}

/// Inserts the card and keeps its token until the card goes.
void keepCard(const Session& watching, const Text& reader, HelperLine& line) {
  Session session{watching.services(), watching.options(), watching.module()};
  if (const auto inserted = session.insertCardFrom(reader); !inserted) {
    for (const Reader& found : session.lastFound()) {
      if (found.name == reader) line.send(messageOf(found));
    }
    return line.send(messageOf(inserted.failure()));
  }
  line.send(messageOf(session.card(), session.examine()));
  line.waitForEnd();
}

/// Watches the readers. It loads nothing itself: one helper asks the card service, one at a time the module
/// for its slots, and one for each card keeps its token.
class WatchRun {
 public:
  explicit WatchRun(Session& session) : session_{session}, options_{session.options()} {
    if (options_.exec) commands_ = std::make_unique<EventCommands>(*options_.exec);
    if (options_.seconds) end_ = Clock::now() + seconds{*options_.seconds};
  }

  [[nodiscard]] Result<void> run() {
    Result<void> done = startService();
    while (done && !isOver_ && signals_.numRequests() == 0 && Clock::now() < end_) {
      done = wait();
      if (done) done = goOn();
    }
    if (done && !isOver_) tellOfSilence();
    if (done && !isOver_) endWithoutToken();
    endHelpers();
    return done;
  }

 private:
  struct InsertedOne {
    ReaderEvent insertion;
    std::unique_ptr<HelperProcess> helper;
    bool isTold = false;
    Text serialNumber{};
  };

  [[nodiscard]] Result<std::unique_ptr<HelperProcess>> start(const std::function<void(HelperLine&)>& work,
                                                             bool endsAtOnce) const {
    const Watch watch{options_.timeout > 0 ? std::optional{seconds{options_.timeout}} : std::nullopt, false,
                      kTimeForEnd};
    return HelperProcess::start(work, watch, endsAtOnce);
  }

  [[nodiscard]] Result<void> startService() {
    auto started = start([&](HelperLine& line) { followService(session_.services(), line); }, true);
    if (!started) return started.failure();
    service_ = *std::move(started);
    serviceDeadline_ = Clock::now() + kCardServiceLimit;
    return {};
  }

  /// Until something has happened, or is to be done. A failure when nobody reads the events any more.
  [[nodiscard]] Result<void> wait() {
    std::vector<pollfd> inputs{{output_, 0, 0}, {signals_.descriptor(), POLLIN, 0}};
    const auto add = [&](const std::unique_ptr<HelperProcess>& helper) {
      if (helper && helper->descriptor() >= 0) inputs.push_back({helper->descriptor(), POLLIN, 0});
    };
    add(service_);
    add(look_);
    for (const auto& [name, card] : cards_) add(card.helper);
    auto next = std::min({end_, serviceDeadline_.value_or(end_), serviceStart_.value_or(end_),
                          sources_.nextLook().value_or(end_), Clock::now() + seconds{60}});
    const auto time = std::chrono::ceil<milliseconds>(std::max(next - Clock::now(), Clock::duration{0}));
    const int count = poll(inputs.data(), static_cast<nfds_t>(inputs.size()), static_cast<int>(time.count()));
    signals_.take();
    if (count > 0 && (inputs.front().revents & (POLLERR | POLLHUP)) != 0) return outputFailure(EPIPE);
    return {};
  }

  [[nodiscard]] Result<void> goOn() {
    if (auto done = takeFromService(); !done) return done;
    if (auto done = takeFromModule(); !done) return done;
    for (auto& [name, card] : cards_) {
      if (auto done = takeFromCard(card); !done) return done;
    }
    auto readers = namedReaders(sources_.readers(), options_.reader, isWholeName_);
    for (const ReaderEvent& event : watch_.take(readers)) {
      if (auto done = take(event); !done) return done;
    }
    std::erase_if(leaving_, [](const auto& helper) { return helper->hasEnded(); });
    if (commands_) commands_->takeLeave();
    return {};
  }

  // ---- The card service ----

  [[nodiscard]] Result<void> takeFromService() {
    if (serviceStart_ && Clock::now() >= *serviceStart_) {
      serviceStart_.reset();
      if (const auto started = startService(); !started) {
        serviceTells({false, wordsOf(toldFailure(started.failure())), {}});
        serviceStart_ = Clock::now() + kPauseAfterCrash;
      }
    }
    if (!service_) return {};
    const bool ended = service_->hasEnded();
    for (const std::string& text : service_->takeTexts()) {
      if (const auto news = serviceIn(text)) serviceTells(*news);
    }
    if (serviceDeadline_ && Clock::now() >= *serviceDeadline_)
      serviceTells({false, "no answer within " + std::to_string(kCardServiceLimit.count()) + " ms", {}});
    if (ended) {
      const auto& failure = service_->failure();
      serviceTells({false, failure ? wordsOf(*failure) : "its library ended", {}});
      service_.reset();
      serviceStart_ = Clock::now() + kPauseAfterCrash;
    }
    return {};
  }

  void serviceTells(const ServiceNews& news) {
    serviceDeadline_.reset();
    sources_.serviceTells(news.answers, news.readers);
    if (!news.answers && !serviceIsSilent_) {
      silence_ = "mireltoken: the card service does not answer" +
                 (news.evidence.empty() ? "" : ": " + news.evidence) +
                 "; until it does, the module is asked for its readers";
    }
    if (news.answers && serviceIsSilent_) {
      tellOfSilence();
      writeMessage("mireltoken: the card service answers");
    }
    serviceIsSilent_ = !news.answers;
  }

  /// Only once the module has answered: where it cannot be loaded, that is all there is to tell.
  void tellOfSilence() {
    if (silence_) writeMessage(*silence_);
    silence_.reset();
  }

  // ---- The module's slots ----

  [[nodiscard]] Result<void> takeFromModule() {
    if (!look_) {
      const auto next = sources_.nextLook();
      if (!next || Clock::now() < *next) return {};
      sources_.lookBegins(Clock::now());
      auto started = start([&](HelperLine& line) { lookAtModule(session_, line); }, true);
      if (started) {
        look_ = *std::move(started);
      } else {
        tellOfModule(toldFailure(started.failure()));
        sources_.lookEnds(Clock::now(), std::nullopt);
      }
      return {};
    }
    const bool ended = look_->hasEnded();
    std::optional<std::vector<WatchedReader>> slots;
    for (const std::string& text : look_->takeTexts()) slots = slotsIn(text);
    if (!ended && !slots) return {};
    if (!slots) tellOfModule(look_->failure());
    if (slots) {
      lastTold_.reset();
      moduleHasAnswered_ = true;
    }
    if (!isOver_) tellOfSilence();
    sources_.lookEnds(Clock::now(), slots);
    leave(std::move(look_));
    return {};
  }

  void tellOfModule(const std::optional<ToldFailure>& failure) {
    if (!failure || lastTold_ == failure) return;
    lastTold_ = failure;
    // It will not be another one when a card is inserted.
    isOver_ = failure->id == errorTermsOf(FailureKind::kModuleNotLoadable).id;
    if (isOver_) endFor(*failure);
    writeMessage("mireltoken: " + wordsOf(*failure));
  }

  /// Where nothing but failures was seen, a script has to be able to tell.
  void endWithoutToken() {
    if (!moduleHasAnswered_ && lastTold_) return endFor(*lastTold_);
    if (Clock::now() < end_) return;  // whoever ends it has seen the events
    tellOfUnreadCards();
    if (cardFailure_ && !hadToken_) {
      session_.setExitCode(exitCodeOf(*cardFailure_));
      return writeMessage("mireltoken: no card was published until the end of the watch; the first: " +
                          wordsOf(*cardFailure_));
    }
    if (!moduleHasAnswered_ && isAwaited(look_)) {
      tellOfSlowness("nothing was seen of the readers",
                     "the module has not answered until the end of the watch");
    }
  }

  [[nodiscard]] static bool isAwaited(const std::unique_ptr<HelperProcess>& helper) {
    return helper && !helper->hasEnded();
  }

  /// Of those no event tells.
  void tellOfUnreadCards() {
    for (const auto& [name, card] : cards_) {
      if (card.isTold || !isAwaited(card.helper)) continue;
      tellOfSlowness("the card in the reader \"" + displayed(card.insertion.reader) + "\" was not read",
                     "the module was still busy with it at the end of the watch");
    }
  }

  void tellOfSlowness(const std::string& what, const std::string& why) {
    const auto told = toldFailure(
        {FailureKind::kModuleHangs, what, why, "watch for longer, or ask the maker of the module"});
    if (!hadToken_) endFor(told);
    writeMessage("mireltoken: " + wordsOf(told));
  }

  /// That is what it comes to: nothing was seen of the module but this failure, of which a message tells.
  void endFor(const ToldFailure& failure) {
    session_.setExitCode(exitCodeOf(failure));
    if (options_.json && !outputWasBegun())
      (void)writeOutput(jsonLine("error", {{"error", jsonOf(failure)}}));  // the message tells it as well
  }

  // ---- Cards ----

  [[nodiscard]] Result<void> take(const ReaderEvent& event) {
    const std::u16string name{event.reader.units()};
    if (event.kind == ReaderEvent::Kind::kInsertion) {
      const auto failsWith = [&](const Failure& failure) {
        InsertedOne& card = cards_.insert_or_assign(name, InsertedOne{event, nullptr}).first->second;
        return tell(card, {std::nullopt, toldFailure(failure)});
      };
      if (cards_.size() >= kMostCards)
        return failsWith({FailureKind::kModuleRefuses, "the card is not read",
                          "there are more than " + std::to_string(kMostCards) + " cards",
                          "name one reader with --reader"});
      auto started = start([&](HelperLine& line) { keepCard(session_, event.reader, line); }, false);
      if (!started) return failsWith(started.failure());
      cards_.insert_or_assign(name, InsertedOne{event, *std::move(started)});
      return {};
    }
    const auto found = cards_.find(name);
    if (found == cards_.end()) return {};
    InsertedOne card = std::move(found->second);
    cards_.erase(found);
    if (auto done = takeFromCard(card); !done) return done;
    if (!card.isTold) {
      const Failure gone{FailureKind::kCardGone, "the card was taken out before it was read", "",
                         "put it back, and leave it in"};
      if (auto done = tell(card, {std::nullopt, toldFailure(gone)}); !done) return done;
    }
    leave(std::move(card.helper));
    return tell(event, {}, card.serialNumber);
  }

  [[nodiscard]] Result<void> takeFromCard(InsertedOne& card) {
    if (!card.helper) return {};
    const bool ended = card.helper->hasEnded();
    for (const std::string& text : card.helper->takeTexts()) {
      if (auto serialNumber = serialNumberIn(text)) card.serialNumber = *std::move(serialNumber);
      auto news = card.isTold ? std::nullopt : cardIn(text);
      if (!news) continue;
      moduleHasAnswered_ = true;
      card.serialNumber = news->serialNumber;
      if (auto done = tell(card, {std::move(news), std::nullopt}); !done) return done;
    }
    if (!ended) return {};
    auto failure = card.helper->failure();
    card.helper.reset();
    if (!failure) failure = toldFailure({FailureKind::kInternal, "the process for this card ended", "", {}});
    if (!card.isTold) return tell(card, {std::nullopt, std::move(failure)});
    writeMessage("mireltoken: reader \"" + displayed(card.insertion.reader) + "\": " + wordsOf(*failure));
    return {};
  }

  [[nodiscard]] Result<void> tell(InsertedOne& card, const Outcome& outcome) {
    card.isTold = true;
    hadToken_ = hadToken_ || outcome.card;
    if (outcome.failure && !cardFailure_) cardFailure_ = outcome.failure;
    return tell(card.insertion, outcome, card.serialNumber);
  }

  [[nodiscard]] Result<void> tell(const ReaderEvent& event, const Outcome& outcome,
                                  const Text& serialNumber) {
    auto written = writeOutput(options_.json ? jsonTextOf(event, outcome) : lineOf(event, outcome));
    if (written && commands_)
      commands_->run(nameOf(event.kind), displayed(event.reader), displayed(serialNumber));
    return written;
  }

  // ---- The end ----

  void leave(std::unique_ptr<HelperProcess> helper) {
    if (!helper) return;
    helper->end();
    leaving_.push_back(std::move(helper));
  }

  /// Gives them the time that they may have; whoever does not want to wait sends a second signal.
  void endHelpers() {
    leave(std::move(service_));
    leave(std::move(look_));
    for (auto& [name, card] : cards_) leave(std::move(card.helper));
    const auto end = Clock::now() + kTimeForEnd;
    const auto before = signals_.numRequests();
    const auto hasEnded = [](const auto& helper) { return helper->hasEnded(); };
    while (std::erase_if(leaving_, hasEnded), !leaving_.empty() && Clock::now() < end) {
      if (signals_.numRequests() > std::max(before, 1)) break;
      std::this_thread::sleep_for(milliseconds{5});
    }
  }

  Session& session_;
  const Options& options_;
  WatchSignals signals_;
  const int output_ = outputWithReader();
  std::unique_ptr<EventCommands> commands_;
  Clock::time_point end_ = Clock::time_point::max();
  bool isOver_ = false;
  bool isWholeName_ = false;  // a reader had the name of the options

  ReaderSources sources_;
  ReaderWatch watch_;
  std::unique_ptr<HelperProcess> service_;
  std::optional<Clock::time_point> serviceDeadline_;  // for its first word
  std::optional<Clock::time_point> serviceStart_;     // after a crash
  bool serviceIsSilent_ = false;
  std::optional<std::string> silence_;  // what is to be told of it
  std::unique_ptr<HelperProcess> look_;
  std::optional<ToldFailure> lastTold_;
  bool moduleHasAnswered_ = false;
  bool hadToken_ = false;                        // a card became one
  std::optional<ToldFailure> cardFailure_;       // of the first card that did not
  std::map<std::u16string, InsertedOne> cards_;  // by the names of their readers
  std::vector<std::unique_ptr<HelperProcess>> leaving_;
};

Result<void> run(Session& session) { return WatchRun{session}.run(); }

constexpr CommandOption kOptions[] = {
    {CommandOption::Kind::kExec,
     "Run this by the shell for each event, with EVENT, READER and SERIAL in its environment"},
    {CommandOption::Kind::kSeconds, "End after this many seconds (default: at Ctrl-C; at most 86400)"},
};

}  // namespace

const Command watchCommand{.name = "watch",
                           .help = "Tell of cards that are inserted and removed, as it happens",
                           .options = kOptions,
                           .run = run,
                           .hasWorker = false};

}  // namespace mirel::cli

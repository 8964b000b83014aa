#include <algorithm>
#include <array>
#include <cstdio>
#include <numeric>

#include "Commands.h"
#include "Json.h"
#include "Output.h"
#include "Recordings.h"
#include "Session.h"
#include "UsageChecks.h"
#include "platform/Log.h"
#include "recording/CallText.h"

namespace mirel::cli {
namespace {

using recording::RecordedCall;
using recording::RecordedEnd;

constexpr const char* kFile = "FILE";
constexpr const char* kFailed = "--failed";
constexpr const char* kSlow = "--slow";

std::string millisecondsText(std::uint64_t microseconds) {
  std::array<char, 32> text{};
  (void)std::snprintf(text.data(), text.size(), "%.3f", static_cast<double>(microseconds) / 1000);
  return text.data();
}

/// The calls of a recording, with their numbers in the file.
using NumberedCalls = std::vector<std::pair<std::size_t, const RecordedCall*>>;

NumberedCalls callsIn(const recording::Recording& recorded) {
  NumberedCalls calls;
  for (const auto& record : recorded.records) {
    if (const auto* call = std::get_if<RecordedCall>(&record)) calls.emplace_back(calls.size() + 1, call);
  }
  return calls;
}

const char* nameOf(recording::Road road) { return road == recording::Road::kToken ? "token" : "host"; }

std::string countOf(std::size_t number, const char* what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

/// The bad end of the run; null: it had none.
const RecordedEnd* endOf(const recording::Recording& recorded) {
  return recorded.records.empty() ? nullptr : std::get_if<RecordedEnd>(&recorded.records.back());
}

std::string summaryOf(const NumberedCalls& calls, const LoadedRecording& loaded) {
  const RecordedEnd* end = endOf(loaded.recording);
  const auto failed = static_cast<std::size_t>(std::count_if(
      calls.begin(), calls.end(), [](const auto& call) { return recording::isFailure(*call.second); }));
  const std::uint64_t time =
      std::accumulate(calls.begin(), calls.end(), std::uint64_t{0},
                      [](std::uint64_t sum, const auto& call) { return sum + call.second->microseconds; });
  return "\n" + countOf(calls.size(), "call") + " that took " + millisecondsText(time) + " ms; " +
         std::to_string(failed) + " failed.\n" +
         (end ? printableLine(recording::endText(*end)) + ".\n" : "") +
         (loaded.isCutOff ? "The last record is not whole: the program was ended while it wrote it.\n" : "");
}

std::string tableOf(const NumberedCalls& calls) {
  std::vector<std::vector<std::string>> rows{{"CALL", "FUNCTION", "FOR", "ABOUT", "RESULT", "MS"}};
  for (const auto& [number, call] : calls) {
    rows.push_back({std::to_string(number), printableLine(call->function), nameOf(call->road),
                    printableLine(recording::subjectText(*call)), recording::resultText(call->result),
                    millisecondsText(call->microseconds)});
  }
  return calls.empty() ? std::string{"There is no such call.\n"} : table(rows, outputIsColoured());
}

Json jsonOf(const RecordedEnd* end) {
  if (!end) return nullptr;
  const bool hasCall = end->call.has_value();
  return {{"text", printableLine(recording::endText(*end))},
          {"function", hasCall ? Json(printableLine(end->call->function)) : Json(nullptr)},
          {"about", hasCall ? printableLine(recording::subjectText(*end->call)) : ""}};
}

std::string jsonText(const NumberedCalls& calls, const LoadedRecording& loaded) {
  Json list = Json::array();
  for (const auto& [number, call] : calls) {
    list.push_back({{"number", number},
                    {"function", printableLine(call->function)},
                    {"for", nameOf(call->road)},
                    {"about", printableLine(recording::subjectText(*call))},
                    {"result", recording::resultText(call->result)},
                    {"milliseconds", static_cast<double>(call->microseconds) / 1000}});
  }
  return jsonLines(
      "trace", Json{{"calls", list}, {"end", jsonOf(endOf(loaded.recording))}, {"cutOff", loaded.isCutOff}});
}

Result<void> run(Session& session) {
  const Options& options = session.options();
  const auto file = options.fileOf(kFile);
  if (options.word.value_or("show") != "show" || !file)
    return wrongUsage("it is \"trace show FILE\"", "trace");
  const auto loaded = loadRecording(*file);
  if (!loaded) return loaded.failure();
  const NumberedCalls all = callsIn(loaded->recording);
  NumberedCalls calls = all;
  if (options.has(kFailed))
    std::erase_if(calls, [](const auto& call) { return !recording::isFailure(*call.second); });
  if (options.has(kSlow)) {
    std::stable_sort(calls.begin(), calls.end(), [](const auto& a, const auto& b) {
      return a.second->microseconds > b.second->microseconds;
    });
  }
  if (options.json) return writeOutput(jsonText(calls, *loaded));
  return writeOutput(tableOf(calls) + summaryOf(all, *loaded));
}

constexpr CommandOption kOptions[] = {
    {CommandOption::Kind::kWord, "What to do with it: show", "ACTION"},
    {CommandOption::Kind::kFile, "The file of a trace or a recording", kFile},
    {CommandOption::Kind::kFlag, "Only the calls that failed", kFailed},
    {CommandOption::Kind::kFlag, "The slowest calls first", kSlow},
};

}  // namespace

const Command traceCommand{"trace", "Show the calls of a trace or a recording (trace show FILE)", kOptions,
                           run, false};

}  // namespace mirel::cli

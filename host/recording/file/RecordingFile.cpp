#include "recording/RecordingFile.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <span>
#include <stdexcept>
#include <utility>

#include "platform/Hex.h"
#include "recording/CallText.h"

namespace mirel::recording {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kSchema = "mireltoken/recording/1";
constexpr std::size_t kLongestLine = std::size_t{1024} * 1024;  // bytes
constexpr std::size_t kMostRecords = 1'000'000;
constexpr std::size_t kMostWords = 256;   // of a command line
constexpr std::size_t kMostNames = 4096;  // of a structure or a list
constexpr std::size_t kMostReaders = 64;
constexpr int kDeepest = 10;                     // values in values
constexpr std::int64_t kLatest = 9'000'000'000;  // seconds; the clock of the system counts on to 2262

/// A file that is not as it is to be.
class Refusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// ---- Writing ----

/// One character for each byte.
std::string charactersOf(std::string_view bytes) {
  std::string text;
  for (const char one : bytes) {
    const auto byte = static_cast<unsigned char>(one);
    if (byte < 0x80) {
      text += one;
    } else {
      text += static_cast<char>(0xC0U | byte >> 6U);
      text += static_cast<char>(0x80U | (byte & 0x3FU));
    }
  }
  return text;
}

Json jsonOf(const Value& value);

Json jsonOf(const Fields& fields) {
  Json json = Json::object();
  for (const NamedValue& field : fields) json[field.name] = jsonOf(field.value);
  return json;
}

Json jsonOf(const Value& value) {
  struct Writer {
    Json operator()(const NullPointer&) const { return nullptr; }
    Json operator()(std::uint64_t number) const { return number; }
    Json operator()(const std::string& text) const { return charactersOf(text); }
    Json operator()(const ByteVector& bytes) const { return {{"hex", hexOfBytes(bytes, HexDigits::kUpper)}}; }
    Json operator()(const HiddenBytes& hidden) const { return {{"hidden", hidden.size}}; }
    Json operator()(const List& list) const {
      Json json = Json::array();
      for (const Value& one : list) json.push_back(jsonOf(one));
      return json;
    }
    Json operator()(const Fields& fields) const { return jsonOf(fields); }
  };
  return std::visit(Writer{}, value.held);
}

Json textOrNull(const std::optional<std::string>& text) {
  return text ? Json(charactersOf(*text)) : Json(nullptr);
}

const char* nameOf(Road road) { return road == Road::kToken ? "token" : "host"; }

Json jsonOf(const RecordedCall& call) {
  return {{"function", call.function},
          {"for", nameOf(call.road)},
          {"in", jsonOf(call.in)},
          {"out", jsonOf(call.out)},
          {"result", resultText(call.result)},
          {"milliseconds", static_cast<double>(call.microseconds) / 1000},
          {"thread", call.thread}};
}

Json jsonOf(const RecordedLoading& loading) {
  return {{"loading", charactersOf(loading.subject)}, {"error", textOrNull(loading.error)}};
}

Json jsonOf(const RecordedModule& module) {
  return {{"module",
           {{"name", charactersOf(module.name)},
            {"path", charactersOf(module.path)},
            {"error", module.error},
            {"noFile", charactersOf(module.noFile)},
            {"exposure", textOrNull(module.exposure)},
            {"target", charactersOf(module.target)},
            {"otherTarget", textOrNull(module.otherTarget)}}}};
}

Json jsonOf(const RecordedSalt& salt) { return {{"salt", hexOfBytes(salt.bytes, HexDigits::kUpper)}}; }

Json jsonOf(const RecordedTime& time) {
  return {{time.clock == RecordedTime::Clock::kDate ? "date" : "clock", time.time}};
}

constexpr std::array kStates{std::pair{CardServiceView::State::kNotThere, "notThere"},
                             std::pair{CardServiceView::State::kSilent, "silent"},
                             std::pair{CardServiceView::State::kAnswers, "answers"}};
constexpr std::array kCards{
    std::pair{ServiceReader::Card::kNone, "none"}, std::pair{ServiceReader::Card::kPresent, "present"},
    std::pair{ServiceReader::Card::kMute, "mute"}, std::pair{ServiceReader::Card::kUnknown, "unknown"}};

template <typename Table, typename Key>
const char* nameIn(const Table& table, Key key) {
  return std::find_if(table.begin(), table.end(), [&](const auto& row) { return row.first == key; })->second;
}

Json jsonOf(const RecordedView& seen) {
  Json readers = Json::array();
  for (const ServiceReader& reader : seen.view.readers) {
    readers.push_back({{"name", charactersOf(reader.name)},
                       {"card", nameIn(kCards, reader.card)},
                       {"exclusive", reader.exclusive},
                       {"inUse", reader.inUse},
                       {"atr", charactersOf(reader.atr)}});
  }
  return {{"cardService",
           {{"state", nameIn(kStates, seen.view.state)},
            {"evidence", charactersOf(seen.view.evidence)},
            {"readers", std::move(readers)}}}};
}

constexpr std::array kEnds{std::pair{BadEnd::Kind::kCrashed, "crashed"},
                           std::pair{BadEnd::Kind::kExited, "exited"}, std::pair{BadEnd::Kind::kHung, "hung"},
                           std::pair{BadEnd::Kind::kInterrupted, "interrupted"}};

Json jsonOf(const RecordedEnd& end) {
  Json call = nullptr;
  if (end.call) {
    call = {{"function", end.call->function},
            {"for", nameOf(end.call->road)},
            {"in", jsonOf(end.call->in)},
            {"thread", end.call->thread}};
  }
  return {{"end", nameIn(kEnds, end.how.kind)},
          {"signal", end.how.signal},
          {"seconds", end.how.seconds},
          {"whileLoading", end.whileLoading},
          {"call", std::move(call)}};
}

/// Nothing but ASCII, so that no text of a card controls a terminal.
std::string line(const Json& json) { return json.dump(-1, ' ', true) + "\n"; }

// ---- Reading ----

/// A JSON object all of whose members have to be read.
class Members {
 public:
  explicit Members(const Json& json) : json_{json} {
    if (!json.is_object()) throw Refusal{"there is no object where one is to be"};
  }

  [[nodiscard]] const Json& operator[](const char* name) {
    const auto found = json_.find(name);
    if (found == json_.end()) throw Refusal{std::string{"there is no \""} + name + "\""};
    ++numRead_;
    return *found;
  }
  [[nodiscard]] bool has(const char* name) const { return json_.contains(name); }
  void end() const {
    if (numRead_ != json_.size()) throw Refusal{"it has more than is known"};
  }

 private:
  const Json& json_;
  std::size_t numRead_ = 0;
};

std::string stringOf(const Json& json) {
  if (!json.is_string()) throw Refusal{"there is no text where one is to be"};
  return json.get<std::string>();
}

/// The bytes that the characters stand for.
std::string bytesOf(const Json& json) {
  const std::string text = stringOf(json);
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto first = static_cast<unsigned char>(text[i]);
    if (first < 0x80) {
      bytes += text[i];
    } else if ((first == 0xC2 || first == 0xC3) && i + 1 < text.size()) {
      bytes += static_cast<char>((first & 0x3U) << 6U | (static_cast<unsigned char>(text[++i]) & 0x3FU));
    } else {
      throw Refusal{"a text has a character that stands for no byte"};
    }
  }
  return bytes;
}

std::optional<std::string> textOrNothing(const Json& json) {
  return json.is_null() ? std::nullopt : std::optional{bytesOf(json)};
}

std::uint64_t numberOf(const Json& json, std::uint64_t most = std::numeric_limits<std::uint64_t>::max()) {
  if (!json.is_number_unsigned() || json.get<std::uint64_t>() > most)
    throw Refusal{"there is no number where one is to be, or it is too large"};
  return json.get<std::uint64_t>();
}

bool boolOf(const Json& json) {
  if (!json.is_boolean()) throw Refusal{"there is no true or false where one is to be"};
  return json.get<bool>();
}

ByteVector hexBytesOf(const Json& json) {
  const std::string digits = stringOf(json);
  if (digits.size() % 2 != 0) throw Refusal{"a hexadecimal digit is missing"};
  ByteVector bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    const auto high = valueOfHexDigit(digits[i]);
    const auto low = valueOfHexDigit(digits[i + 1]);
    if (!high || !low) throw Refusal{"there is something else than hexadecimal digits"};
    bytes.push_back(static_cast<std::uint8_t>(*high << 4U | *low));
  }
  return bytes;
}

const Json& arrayOf(const Json& json, std::size_t most) {
  if (!json.is_array() || json.size() > most)
    throw Refusal{"there is no list where one is to be, or it is too long"};
  return json;
}

Value valueOf(const Json& json);

Fields fieldsOf(const Json& json) {
  if (!json.is_object() || json.size() > kMostNames)
    throw Refusal{"there is no structure where one is to be, or it is too large"};
  Fields fields;
  for (const auto& [name, value] : json.items()) fields.push_back({name, valueOf(value)});
  return fields;
}

Value valueOf(const Json& json) {
  if (json.is_null()) return {NullPointer{}};
  if (json.is_string()) return {bytesOf(json)};
  if (json.is_array()) {
    List list;
    for (const Json& one : arrayOf(json, kMostNames)) list.push_back(valueOf(one));
    return {std::move(list)};
  }
  if (!json.is_object()) return {numberOf(json)};
  if (json.size() == 1 && json.contains("hex")) return {hexBytesOf(json.at("hex"))};
  if (json.size() == 1 && json.contains("hidden")) return {HiddenBytes{numberOf(json.at("hidden"))}};
  return {fieldsOf(json)};
}

template <typename Table>
auto keyIn(const Table& table, const Json& json) {
  const std::string name = stringOf(json);
  const auto found =
      std::find_if(table.begin(), table.end(), [&](const auto& row) { return row.second == name; });
  if (found == table.end()) throw Refusal{"there is a word that is not known"};
  return found->first;
}

/// What is known of a call before it comes back.
RecordedCall questionOf(Members& members) {
  constexpr std::size_t kLongestName = 64;
  RecordedCall call;
  call.function = stringOf(members["function"]);
  if (!call.function.starts_with("C_") || call.function.size() > kLongestName)
    throw Refusal{"there is no function of that name"};
  const std::string road = stringOf(members["for"]);
  if (road != "token" && road != "host") throw Refusal{"\"for\" is neither \"token\" nor \"host\""};
  call.road = road == "token" ? Road::kToken : Road::kHost;
  call.in = fieldsOf(members["in"]);
  return call;
}

std::uint32_t threadOf(Members& members) {
  constexpr std::uint64_t kMostThreads = 1'000'000;
  return static_cast<std::uint32_t>(numberOf(members["thread"], kMostThreads));
}

RecordedCall callOf(Members& members) {
  constexpr double kLongest = 1e12;  // milliseconds
  RecordedCall call = questionOf(members);
  call.out = fieldsOf(members["out"]);
  const auto result = resultOfText(stringOf(members["result"]));
  if (!result) throw Refusal{"there is no result of that name"};
  call.result = *result;
  const Json& time = members["milliseconds"];
  if (!time.is_number() || !(time.get<double>() >= 0 && time.get<double>() <= kLongest))
    throw Refusal{"\"milliseconds\" is no time"};
  call.microseconds = static_cast<std::uint64_t>(std::llround(time.get<double>() * 1000));
  call.thread = threadOf(members);
  return call;
}

RecordedModule moduleOf(const Json& json) {
  constexpr std::uint64_t kMostErrors = 4096;
  Members members{json};
  RecordedModule module;
  module.name = bytesOf(members["name"]);
  module.path = bytesOf(members["path"]);
  module.error = static_cast<int>(numberOf(members["error"], kMostErrors));
  module.noFile = bytesOf(members["noFile"]);
  module.exposure = textOrNothing(members["exposure"]);
  module.target = bytesOf(members["target"]);
  module.otherTarget = textOrNothing(members["otherTarget"]);
  members.end();
  return module;
}

RecordedView viewOf(const Json& json) {
  Members members{json};
  RecordedView seen;
  seen.view.state = keyIn(kStates, members["state"]);
  seen.view.evidence = bytesOf(members["evidence"]);
  for (const Json& one : arrayOf(members["readers"], kMostReaders)) {
    Members reader{one};
    seen.view.readers.push_back({bytesOf(reader["name"]), keyIn(kCards, reader["card"]),
                                 boolOf(reader["exclusive"]), boolOf(reader["inUse"]),
                                 bytesOf(reader["atr"])});
    reader.end();
  }
  members.end();
  return seen;
}

std::int64_t timeOf(const Json& json, std::int64_t unitsPerSecond) {
  return static_cast<std::int64_t>(numberOf(json, static_cast<std::uint64_t>(kLatest * unitsPerSecond)));
}

RecordedEnd endOf(Members& members) {
  constexpr std::size_t kLongestSignal = 15;
  constexpr std::uint64_t kMostSeconds = std::numeric_limits<std::int32_t>::max();
  RecordedEnd end;
  end.how.kind = keyIn(kEnds, members["end"]);
  end.how.signal = stringOf(members["signal"]);
  const bool isName = std::all_of(end.how.signal.begin(), end.how.signal.end(), [](unsigned char one) {
    return one == ' ' || (one >= '0' && one <= '9') || (one >= 'A' && one <= 'Z') ||
           (one >= 'a' && one <= 'z');
  });
  if (!isName || end.how.signal.size() > kLongestSignal) throw Refusal{"there is no signal of that name"};
  end.how.seconds = numberOf(members["seconds"], kMostSeconds);
  end.whileLoading = boolOf(members["whileLoading"]);
  const Json& call = members["call"];
  if (!call.is_null()) {
    if (end.whileLoading) throw Refusal{"there is a call where the module was being loaded"};
    Members question{call};
    end.call = questionOf(question);
    end.call->thread = threadOf(question);
    question.end();
  }
  using Kind = BadEnd::Kind;
  const bool needsSignal = end.how.kind == Kind::kCrashed || end.how.kind == Kind::kInterrupted;
  if (needsSignal && end.how.signal.empty()) throw Refusal{"the signal is missing"};
  if (end.how.kind == Kind::kHung && !end.call && !end.whileLoading)
    throw Refusal{"nothing is named that hung"};
  return end;
}

Record recordOf(const Json& json) {
  Members members{json};
  Record record;
  if (members.has("function")) {
    record = callOf(members);
  } else if (members.has("loading")) {
    RecordedLoading loading{bytesOf(members["loading"]), textOrNothing(members["error"])};
    record = std::move(loading);
  } else if (members.has("module")) {
    record = moduleOf(members["module"]);
  } else if (members.has("salt")) {
    record = RecordedSalt{hexBytesOf(members["salt"])};
  } else if (members.has("date")) {
    record = RecordedTime{RecordedTime::Clock::kDate, timeOf(members["date"], 1)};
  } else if (members.has("clock")) {
    record = RecordedTime{RecordedTime::Clock::kSteady, timeOf(members["clock"], 1'000'000)};
  } else if (members.has("cardService")) {
    record = viewOf(members["cardService"]);
  } else if (members.has("end")) {
    record = endOf(members);
  } else {
    throw Refusal{"it is no record that is known"};
  }
  members.end();
  return record;
}

std::vector<std::string> textsOf(const Json& json) {
  std::vector<std::string> texts;
  for (const Json& one : arrayOf(json, kMostWords)) texts.push_back(bytesOf(one));
  return texts;
}

Header headerOf(const Json& json) {
  Members members{json};
  if (members["schema"] != kSchema)
    throw Refusal{std::string{"it is no recording: the first line has no \"schema\": \""} + kSchema + "\""};
  Header header;
  header.program = bytesOf(members["program"]);
  header.command = textsOf(members["command"]);
  header.started = timeOf(members["started"], 1);
  header.module = bytesOf(members["module"]);
  header.replaced = textsOf(members["replaced"]);
  members.end();
  return header;
}

/// `ioValuesLeft`: that it and the lines behind it may have.
Json parsed(std::string_view text, std::size_t& ioValuesLeft) {
  if (text.size() > kLongestLine) throw Refusal{"it is too long"};
  bool tooDeep = false;
  bool tooMany = false;
  const auto keep = [&](int depth, Json::parse_event_t, Json&) {
    tooDeep = tooDeep || depth > kDeepest;
    tooMany = tooMany || ioValuesLeft == 0;
    if (!tooMany) --ioValuesLeft;
    return !tooDeep && !tooMany;
  };
  Json json = Json::parse(text, keep, false);
  if (tooDeep) throw Refusal{"it has values in values in values"};
  if (tooMany) throw Refusal{"there are too many values"};
  if (json.is_discarded()) throw Refusal{"it is no JSON"};
  return json;
}

}  // namespace

std::string lineOf(const Header& header) {
  const auto texts = [](const std::vector<std::string>& list) {
    Json json = Json::array();
    for (const std::string& text : list) json.push_back(charactersOf(text));
    return json;
  };
  return line({{"schema", kSchema},
               {"program", charactersOf(header.program)},
               {"command", texts(header.command)},
               {"started", header.started},
               {"module", charactersOf(header.module)},
               {"replaced", texts(header.replaced)}});
}

std::string lineOf(const Record& record) {
  return line(std::visit([](const auto& one) { return jsonOf(one); }, record));
}

std::string textOf(const Recording& recording) {
  std::string text = lineOf(recording.header);
  for (const Record& record : recording.records) text += lineOf(record);
  return text;
}

ReadRecording readRecording(std::string_view text, std::size_t mostValues) {
  ReadRecording read;
  Recording recording;
  std::size_t number = 0;
  try {
    while (!text.empty()) {
      ++number;
      const std::size_t end = text.find('\n');
      if (end == std::string_view::npos && number > 1) {
        read.isCutOff = true;
        break;
      }
      const Json json = parsed(text.substr(0, end), mostValues);
      if (number == 1) {
        recording.header = headerOf(json);
      } else {
        if (recording.records.size() == kMostRecords) throw Refusal{"there are too many records"};
        if (!recording.records.empty() && std::holds_alternative<RecordedEnd>(recording.records.back()))
          throw Refusal{"it goes on after its end"};
        recording.records.push_back(recordOf(json));
      }
      text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
    }
    if (number == 0) throw Refusal{"it is empty"};
  } catch (const Refusal& refusal) {
    read.refusal = "line " + std::to_string(std::max<std::size_t>(number, 1)) + ": " + refusal.what();
    return read;
  }
  read.recording = std::move(recording);
  return read;
}

}  // namespace mirel::recording

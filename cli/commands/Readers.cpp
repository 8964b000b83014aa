
#include "Commands.h"
#include "Json.h"
#include "Output.h"
#include "Session.h"
#include "Wording.h"

namespace mirel::cli {
namespace {

/// Why the reader's card could not be read, and what to do.
std::string problemOf(const Failure& unreadable) {
  return unreadable.why + "; " + std::string{wordsOf(unreadable.advice)};
}

Json jsonOf(const Reader& reader) {
  Json json;
  json["reader"] = reader.name.toUtf8();
  json["slotID"] = reader.slotID;
  json["slotFlags"] = reader.slotFlags;
  json["tokenLabel"] = reader.tokenLabel.toUtf8();
  json["serialNumber"] = reader.serialNumber.toUtf8();
  json["manufacturer"] = reader.manufacturer.toUtf8();
  json["model"] = reader.model.toUtf8();
  json["tokenFlags"] = reader.tokenFlags;
  json["initialised"] = reader.tokenInitialised;
  if (reader.unreadable) json["problem"] = problemOf(*reader.unreadable);
  return json;
}

std::string jsonText(const std::vector<Reader>& readers) {
  Json list = Json::array();
  for (const Reader& reader : readers) list.push_back(jsonOf(reader));
  return jsonLines("readers", Json{{"readers", list}});
}

std::string tableText(const std::vector<Reader>& readers) {
  std::vector<std::vector<std::string>> rows{{"READER", "TOKEN LABEL", "SERIAL NUMBER", "FLAGS"}};
  for (const Reader& reader : readers) {
    std::string flags = reader.unreadable ? "unreadable: " + problemOf(*reader.unreadable)
                                          : joinedWith(" ", reader.tokenFlags);
    if (reader.distinctName.isNull())
      flags.append(" (cannot be chosen: an earlier reader or slot has the same name)");
    rows.push_back(
        {displayed(reader.name), displayed(reader.tokenLabel), displayed(reader.serialNumber), flags});
  }
  return table(rows, outputIsColoured());
}

Result<void> run(Session& session) {
  const auto readers = session.readers();
  if (!readers) return readers.failure();
  if (readers->empty()) {
    const auto [failure, onlyMissing] = session.whyNoCard("there is no card to show");
    if (!onlyMissing) return failure;
    writeMessage(failureLine(failure));
  }
  if (session.options().json) return writeOutput(jsonText(*readers));
  if (readers->empty()) return {};
  return writeOutput(tableText(*readers));
}

}  // namespace

const Command readersCommand{"readers", "List the readers that hold a card", {}, run};

}  // namespace mirel::cli

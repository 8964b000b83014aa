#include "DoctorNotes.h"

#include <cstdint>

#include "NoteParser.h"
#include "platform/Log.h"

namespace mirel::cli {
namespace {

using Json = nlohmann::ordered_json;

template <typename Enum>
std::int64_t numberOf(Enum value) {
  return static_cast<std::int64_t>(value);
}

/// The member of an object as that enumerator; the first one where it is none.
template <typename Enum>
Enum valueIn(const Json& object, const char* member, Enum last) {
  const auto found = object.find(member);
  if (found == object.end() || !found->is_number_integer()) return Enum{};
  const auto number = found->get<std::int64_t>();
  return number < 0 || number > numberOf(last) ? Enum{} : static_cast<Enum>(number);
}

std::string textIn(const Json& object, const char* member) {
  const auto found = object.find(member);
  return found != object.end() && found->is_string() ? printableLine(found->get<std::string>())
                                                     : std::string{};
}

std::vector<std::string> textsIn(const Json& object, const char* member) {
  std::vector<std::string> texts;
  const auto found = object.find(member);
  if (found == object.end() || !found->is_array()) return texts;
  for (const Json& one : *found) {
    if (one.is_string()) texts.push_back(printableLine(one.get_ref<const std::string&>()));
  }
  return texts;
}

/// Calls `use` with each object of a list; of another value with none.
template <typename Use>
void forEachObjectIn(const Json& object, const char* member, const Use& use) {
  const auto found = object.find(member);
  if (found == object.end() || !found->is_array()) return;
  for (const Json& one : *found) {
    if (one.is_object()) use(one);
  }
}

Json jsonOf(const Check& check) {
  Json findings = Json::array();
  for (const Finding& finding : check.findings) {
    findings.push_back({{"id", entryOf(finding.id).code},
                        {"severity", numberOf(finding.severity)},
                        {"subject", finding.subject},
                        {"evidence", finding.evidence}});
  }
  return {{"name", check.name},     {"severity", numberOf(check.severity)}, {"evidence", check.evidence},
          {"reader", check.reader}, {"station", numberOf(check.station)},   {"findings", findings}};
}

Check checkOf(const Json& json) {
  Check check{textIn(json, "name"),     valueIn(json, "severity", Severity::kFailure),
              textIn(json, "evidence"), {},
              textIn(json, "reader"),   valueIn(json, "station", Station::kSystem)};
  forEachObjectIn(json, "findings", [&](const Json& finding) {
    const FindingEntry* entry = findEntry(textIn(finding, "id"));
    if (!entry) return;
    check.findings.push_back({entry->id, valueIn(finding, "severity", Severity::kFailure),
                              textIn(finding, "subject"), textIn(finding, "evidence")});
  });
  return check;
}

Reader slotOf(const Json& json) {
  Reader slot;
  slot.name = Text::fromUtf8(textIn(json, "name"));
  slot.instanceID = Text::fromUtf8(textIn(json, "instanceID"));
  slot.tokenLabel = Text::fromUtf8(textIn(json, "label"));
  slot.serialNumber = Text::fromUtf8(textIn(json, "serialNumber"));
  return slot;
}

/// Whether all is there that a bundle asks of a card.
bool isCard(const Json& json) {
  for (const char* list : {"items", "notPublished"}) {
    const auto found = json.find(list);
    if (found == json.end() || !found->is_array()) return false;
    for (const Json& item : *found) {
      if (!item.is_object() || (item.contains("idHex") && !item["idHex"].is_string())) return false;
    }
  }
  return !json.contains("idHex");
}

}  // namespace

std::string textOf(const DoctorNotes& notes) {
  Json checks = Json::array();
  for (const Check& check : notes.diagnosis.checks) checks.push_back(jsonOf(check));
  Json slots = Json::array();
  for (const Reader& slot : notes.diagnosis.slots) {
    slots.push_back({{"name", slot.name.toUtf8()},
                     {"instanceID", slot.instanceID.toUtf8()},
                     {"label", slot.tokenLabel.toUtf8()},
                     {"serialNumber", slot.serialNumber.toUtf8()}});
  }
  const Json all{{"checks", checks},
                 {"module", notes.diagnosis.module.path},
                 {"target", notes.diagnosis.module.target},
                 {"slots", slots},
                 {"systemTokens", notes.diagnosis.systemTokens},
                 {"numPublished", notes.numPublished},
                 {"cards", notes.cards},
                 {"log", notes.log},
                 {"logWasStopped", notes.logWasStopped}};
  return all.dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::optional<DoctorNotes> notesFrom(std::string_view text) {
  const Json all = parsedNote(text, 8);
  if (!all.is_object()) return std::nullopt;
  DoctorNotes notes;
  forEachObjectIn(all, "checks",
                  [&](const Json& check) { notes.diagnosis.checks.push_back(checkOf(check)); });
  forEachObjectIn(all, "slots", [&](const Json& slot) { notes.diagnosis.slots.push_back(slotOf(slot)); });
  notes.diagnosis.module = {textIn(all, "module"), textIn(all, "target")};
  if (all.contains("numPublished") && all["numPublished"].is_number_unsigned())
    notes.numPublished = all["numPublished"].get<std::size_t>();
  forEachObjectIn(all, "cards", [&](const Json& card) {
    if (isCard(card)) notes.cards.push_back(card);
  });
  notes.logWasStopped = all.value("logWasStopped", Json{}) == Json(true);
  notes.diagnosis.systemTokens = textsIn(all, "systemTokens");
  notes.log = textsIn(all, "log");
  return notes;
}

void addEnd(const Failure& failure, Diagnosis& diagnosis) {
  const bool hangs = failure.kind == FailureKind::kModuleHangs;
  const FindingID id = hangs ? FindingID::kModuleHangs : FindingID::kModuleCrashed;
  diagnosis.checks.push_back({"end of the module",
                              Severity::kFailure,
                              failure.what,
                              {{id, Severity::kFailure, {}, failure.what}},
                              {},
                              Station::kModule});
}

}  // namespace mirel::cli

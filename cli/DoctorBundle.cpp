#include "DoctorBundle.h"

#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <optional>
#include <utility>

#include "FindingText.h"
#include "Pseudonyms.h"
#include "platform/Digest.h"
#include "platform/Hex.h"
#include "platform/UserDirectory.h"

namespace mirel::cli {
namespace {

using Json = nlohmann::ordered_json;
using Kind = Pseudonyms::Kind;

/// Not the name of the computer.
std::string systemText() {
  utsname names{};
  std::string text = "not known";
  if (uname(&names) >= 0) {
    text = std::string{names.sysname} + " " + names.release + " " + names.machine;
  }
  std::ifstream file{"/etc/os-release"};
  constexpr std::string_view kName = "PRETTY_NAME=";
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with(kName)) continue;
    std::erase(line, '"');
    text += ", " + line.substr(kName.size());
  }
  return printableLine(text);
}

/// Size and digest; empty where the file cannot be read.
std::string contentText(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) return {};
  std::ifstream file{path, std::ios::binary};
  Digest digest{Hash::kSHA256};
  std::uint64_t size = 0;
  std::array<char, 65536> piece{};
  while (file.read(piece.data(), piece.size()) || file.gcount() > 0) {
    const auto count = static_cast<std::size_t>(file.gcount());
    digest.update({reinterpret_cast<const std::uint8_t*>(piece.data()), count});
    size += count;
  }
  if (!file.eof()) return {};
  return "Size      " + std::to_string(size) + " bytes\nSHA-256   " +
         hexOfBytes(digest.finish(), HexDigits::kLower) + "\n";
}

/// What a text of JSON is, by the name of its member; nothing: no name.
std::optional<Kind> kindOf(std::string_view member) {
  constexpr std::pair<std::string_view, Kind> kKinds[] = {{"reader", Kind::kReader},
                                                          {"instanceID", Kind::kCard},
                                                          {"labelOnCard", Kind::kLabel},
                                                          {"serialNumber", Kind::kSerialNumber},
                                                          {"subject", Kind::kName},
                                                          {"issuer", Kind::kName},
                                                          {"subjectAltNames", Kind::kName},
                                                          {"sha256", Kind::kFingerprint},
                                                          {"publicKeyHash", Kind::kFingerprint}};
  for (const auto& [name, kind] : kKinds) {
    if (name == member) return kind;
  }
  return std::nullopt;
}

/// Members whose texts are this program's own.
bool isFixed(std::string_view member) {
  constexpr std::string_view kFixed[] = {"schema",   "class",     "keyType", "keyUsage", "extendedKeyUsage",
                                         "notAfter", "notBefore", "works",   "kind",     "code",
                                         "id",       "severity",  "title",   "why",      "remedy"};
  return std::find(std::begin(kFixed), std::end(kFixed), member) != std::end(kFixed);
}

/// The parts of "CN=Jane Doe, O=Office" that may stand alone elsewhere.
void addParts(const std::string& name, Pseudonyms& pseudonyms) {
  constexpr std::size_t kShortest = 3;  // no countries
  for (std::size_t at = name.find('='); at != std::string::npos; at = name.find('=', at + 1)) {
    const std::size_t end = std::min(name.find_first_of(",+/", at), name.size());
    std::string part = name.substr(at + 1, end - at - 1);
    while (part.ends_with(' ')) part.pop_back();
    if (part.size() >= kShortest) pseudonyms.add(Kind::kName, part);
  }
}

void addItem(const Json& item, Pseudonyms& pseudonyms) {
  constexpr std::size_t kLongestPlainID = 8;  // digits: nobody's name
  const auto addText = [&](Kind kind, const Json& value) {
    if (!value.is_string()) return;
    pseudonyms.add(kind, value.get<std::string>());
    if (kind == Kind::kName) addParts(value.get<std::string>(), pseudonyms);
  };
  for (const auto& [member, value] : item.items()) {
    const auto kind = kindOf(member);
    if (!kind) continue;
    addText(*kind, value);
    if (value.is_array()) {
      for (const Json& one : value) addText(*kind, one);
    }
  }
  if (item.value("idHex", std::string{}).size() <= kLongestPlainID) return;
  addText(Kind::kID, item["idHex"]);
  if (item.contains("label")) addText(Kind::kID, item["label"]);
}

void addCard(const Json& card, Pseudonyms& pseudonyms) {
  addItem(card, pseudonyms);
  for (const char* list : {"items", "notPublished"}) {
    for (const Json& item : card[list]) addItem(item, pseudonyms);
  }
}

void replaceIn(Json& value, Pseudonyms& pseudonyms) {
  if (value.is_string()) value = pseudonyms.replacedIn(value.get<std::string>());
  if (!value.is_structured()) return;
  if (value.is_object()) value.erase("instanceIDHex");
  for (auto& [member, part] : value.items()) {
    if (!value.is_object() || !isFixed(member)) replaceIn(part, pseudonyms);
  }
}

void addUser(const PlatformServices& services, Pseudonyms& pseudonyms) {
  for (const auto& directory : {services.user, systemUserDirectory()}) {
    const std::string name = directory->loginName();
    const std::string home = directory->homeOf(name);
    std::error_code error;
    // The module's path is the one behind all links.
    for (const std::string& folder : {home, std::filesystem::canonical(home, error).string()}) {
      if (folder.size() > 1) pseudonyms.add(Kind::kHome, folder);
    }
    pseudonyms.add(Kind::kUser, name);
  }
}

Pseudonyms pseudonymsFor(const BundleParts& parts, const PlatformServices& services) {
  Pseudonyms pseudonyms;
  addUser(services, pseudonyms);
  for (const Reader& slot : parts.diagnosis.slots) {
    pseudonyms.add(Kind::kReader, slot.name.toUtf8());
    pseudonyms.add(Kind::kCard, slot.instanceID.toUtf8());
    pseudonyms.add(Kind::kLabel, slot.tokenLabel.toUtf8());
    pseudonyms.add(Kind::kSerialNumber, slot.serialNumber.toUtf8());
  }
  for (const std::string& token : parts.diagnosis.systemTokens) {
    const std::string card = token.substr(std::min(token.find(':'), token.size() - 1) + 1);
    pseudonyms.add(Kind::kCard, card);
  }
  for (const Json& card : parts.cards) addCard(card, pseudonyms);
  return pseudonyms;
}

/// Puts the sections one behind the other.
class Writer {
 public:
  explicit Writer(std::optional<Pseudonyms>& pseudonyms) : pseudonyms_{pseudonyms} {}

  void heading(std::string_view text) { all_.append("\n== ").append(text).append(" ==\n"); }
  /// A text of this program alone.
  void fixed(std::string_view text) { all_ += text; }
  /// A text in which names may stand.
  void shown(std::string_view text) {
    all_ += pseudonyms_ ? pseudonyms_->replacedIn(text) : std::string{text};
  }
  void json(Json value) {
    if (pseudonyms_) replaceIn(value, *pseudonyms_);
    all_ += value.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
  }
  [[nodiscard]] std::string text() && { return std::move(all_); }

 private:
  std::optional<Pseudonyms>& pseudonyms_;
  std::string all_;
};

void writeStart(const BundleParts& parts, Writer& writer) {
  writer.fixed("Date      " + parts.date + "\nSystem    " + systemText() + "\n" + parts.versions);
  writer.heading("Module");
  const ExaminedModule& module = parts.diagnosis.module;
  if (module.path.empty()) return writer.fixed("There is none.\n");
  writer.fixed("Path      ");
  writer.shown(printableLine(module.path));
  writer.fixed("\nBuilt for " + (module.target.empty() ? "not known" : module.target) + "\n");
  // Another file may have that path here.
  writer.fixed(parts.isOfRecording ? "As recorded, maybe on another system than the one above.\n"
                                   : contentText(module.path));
}

void writeDiagnosis(const Diagnosis& diagnosis, Writer& writer) {
  writer.heading("Checks of module, card service, readers and cards");
  for (const Check& check : diagnosis.checks) {
    writer.fixed(std::string{severityName(check.severity)} + ": " + check.name + ": ");
    writer.shown(check.evidence);
    if (!check.reader.empty()) {
      writer.fixed(" (card in reader ");
      writer.shown("\"" + check.reader + "\"");
      writer.fixed(")");
    }
    writer.fixed("\n");
  }
  writer.heading("Findings");
  for (const Finding& finding : diagnosis.findings()) {
    const FindingEntry& entry = entryOf(finding.id);
    writer.fixed(std::string{entry.code} + " " + std::string{severityName(finding.severity)} + ": " +
                 std::string{entry.title} + "\n");
    for (const auto& [name, text] :
         {std::pair{"  About   ", &finding.subject}, {"  Seen    ", &finding.evidence}}) {
      if (text->empty()) continue;
      writer.fixed(name);
      writer.shown(*text);
      writer.fixed("\n");
    }
  }
}

void writeLog(const BundleParts& parts, Writer& writer) {
  writer.heading("Log");
  for (const std::string& line : parts.log) {
    writer.shown(line);
    writer.fixed("\n");
  }
  if (parts.logWasStopped)
    writer.fixed("(From the login on nothing is kept: those lines show what was signed and decrypted.)\n");
}

}  // namespace

void KeptLog::keep(std::string_view line) {
  const std::lock_guard lock{mutex_};
  if (!wasStopped_) lines_.push_back(printableLine(line));
}

void KeptLog::systemDefault(std::string_view line) noexcept {
  next_->systemDefault(line);
  keep(line);
}

void KeptLog::systemError(std::string_view line) noexcept {
  next_->systemError(line);
  keep(line);
}

void KeptLog::process(std::string_view line) noexcept {
  next_->process(line);
  keep(line);
}

void KeptLog::stop() noexcept {
  const std::lock_guard lock{mutex_};
  wasStopped_ = true;
}

std::vector<std::string> KeptLog::lines() const {
  const std::lock_guard lock{mutex_};
  return lines_;
}

bool KeptLog::wasStopped() const {
  const std::lock_guard lock{mutex_};
  return wasStopped_;
}

std::string bundleOf(const BundleParts& parts, const PlatformServices& services, bool anonymous) {
  std::optional<Pseudonyms> pseudonyms;
  if (anonymous) pseudonyms = pseudonymsFor(parts, services);
  Writer writer{pseudonyms};
  writer.fixed(
      "mireltoken doctor, for support. Read it before you send it: it holds no PIN and no plain text,\n");
  writer.fixed(anonymous
                   ? "and pseudonyms for names and numbers of people, cards and folders; see the end.\n\n"
                   : "but names, labels and serial numbers; --anonymous replaces them.\n\n");
  writeStart(parts, writer);
  writeDiagnosis(parts.diagnosis, writer);
  writer.heading("Cards");
  if (parts.cards.empty()) writer.fixed("No card was inserted.\n");
  for (const Json& card : parts.cards) writer.json(card);
  writeLog(parts, writer);
  if (pseudonyms) {
    writer.heading("Replaced");
    writer.fixed(pseudonyms->counts());
  }
  return std::move(writer).text();
}

}  // namespace mirel::cli

#include "module/Script.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace mirel::test {
namespace {

[[noreturn]] void endTheProcess(const char* complaint, const std::string& what) {
  std::fprintf(stderr, "scripted module: %s: %s\n", complaint, what.c_str());
  std::abort();
}

}  // namespace

std::size_t functionPosition(std::string_view name) {
  const auto* const found = std::find(kCryptokiFunctionNames.begin(), kCryptokiFunctionNames.end(), name);
  if (found == kCryptokiFunctionNames.end()) endTheProcess("there is no such function", std::string{name});
  return static_cast<std::size_t>(found - kCryptokiFunctionNames.begin());
}

Script::Script(const CK_FUNCTION_LIST& complete, CK_FUNCTION_LIST& live) : complete_{complete}, live_{live} {
  reset();
}

void Script::reset() {
  live_ = complete_;
  overlapped_ = false;
  initialised_ = false;
  slots_.clear();
  sessions_.clear();
  pulledSessions_.clear();
  action_ = nullptr;
  actionWasSet_ = false;
  nextSession_ = kFirstSession;
  nextObject_ = kPublicKey;
  forgetCalls();
  faults_.clear();
  hooks_ = {};
  deviations = {};

  addSlot("Reader A 00", emptyCard("TESTCARD", "1234567890ABCDEF"));
  const Value modulus = patternValue(256, 0xC5);
  addObject(rsaPublicKey(bytesOf("01"), bytesOf("MyKey"), modulus));
  addObject(rsaPrivateKey(bytesOf("01"), bytesOf("MyKey"), modulus));
  addObject(certificate(bytesOf("01"), bytesOf("MyKey"), patternValue(700, 0x30)));
}

void Script::forgetCalls() {
  calls_.clear();
  reads_.clear();
}

CK_SLOT_ID Script::addSlot(std::string_view description, std::optional<Card> card) {
  const CK_SLOT_ID id = slots_.empty() ? kSlot : slots_.rbegin()->first + 1;
  Slot& added = slots_[id];
  setField(added.info.slotDescription, description);
  setField(added.info.manufacturerID, "Scripted readers");
  added.info.flags = CKF_REMOVABLE_DEVICE | CKF_HW_SLOT;
  added.info.hardwareVersion = {5, 6};
  added.info.firmwareVersion = {7, 8};
  added.card = std::move(card);
  return id;
}

Slot& Script::slot(CK_SLOT_ID id) {
  Slot* const found = findSlot(id);
  if (!found) endTheProcess("there is no such slot", std::to_string(id));
  return *found;
}

Card& Script::card(CK_SLOT_ID id) {
  Slot& holder = slot(id);
  if (!holder.card) endTheProcess("there is no card in slot", std::to_string(id));
  return *holder.card;
}

CK_OBJECT_HANDLE Script::addObject(Object object, CK_SLOT_ID id) {
  const CK_OBJECT_HANDLE handle = nextObject_++;
  card(id).objects.emplace(handle, std::move(object));
  return handle;
}

Object& Script::object(CK_OBJECT_HANDLE handle) {
  for (auto& [id, slot] : slots_) {
    if (!slot.card) continue;
    const auto found = slot.card->objects.find(handle);
    if (found != slot.card->objects.end()) return found->second;
  }
  endTheProcess("there is no such object", std::to_string(handle));
}

void Script::pullCard(CK_SLOT_ID id, CK_RV code) {
  slot(id).card.reset();
  for (const auto& [handle, session] : sessions_) {
    if (session.slot == id) pulledSessions_[handle] = code;
  }
  std::erase_if(sessions_, [id](const auto& entry) { return entry.second.slot == id; });
}

void Script::insertCard(Card card, CK_SLOT_ID id) { slot(id).card = std::move(card); }

std::vector<std::string> Script::callTexts(std::string_view function) const {
  std::vector<std::string> texts;
  for (const Call& call : calls_) {
    if (function.empty() || call.function == function) texts.push_back(call.text);
  }
  return texts;
}

std::size_t Script::countOf(std::string_view function) const {
  (void)functionPosition(function);
  return callTexts(function).size();
}

void Script::failCall(std::size_t n, CK_RV code, Times times) { faults_.push_back({{}, n, code, times}); }

void Script::failCallOf(std::string_view function, std::size_t n, CK_RV code, Times times) {
  (void)functionPosition(function);
  faults_.push_back({std::string{function}, n, code, times});
}

void Script::beforeCall(std::size_t n, std::function<void()> action) {
  action_ = std::move(action);
  actionWasSet_ = true;
  callsBeforeAction_ = n;
}

void Script::actBeforeCall() {
  if (!action_ || callsBeforeAction_-- > 0) return;
  std::exchange(action_, nullptr)();
}

bool Script::fired() const {
  return std::any_of(faults_.begin(), faults_.end(), [](const Fault& fault) { return fault.fired; });
}

void Script::removeEntry(std::string_view function) {
  const std::size_t offset = (functionPosition(function) + 1) * sizeof(void*);
  std::memset(reinterpret_cast<unsigned char*>(&live_) + offset, 0, sizeof(void*));
}

std::vector<CK_SESSION_HANDLE> Script::sessionsThat(bool (*want)(const Session&)) const {
  std::vector<CK_SESSION_HANDLE> handles;
  for (const auto& [handle, session] : sessions_) {
    if (want(session)) handles.push_back(handle);
  }
  return handles;
}

std::vector<CK_SESSION_HANDLE> Script::openSessions() const {
  return sessionsThat([](const Session&) { return true; });
}

std::vector<CK_SESSION_HANDLE> Script::openSearches() const {
  return sessionsThat([](const Session& session) { return session.search.has_value(); });
}

std::vector<CK_SESSION_HANDLE> Script::openOperations() const {
  return sessionsThat([](const Session& session) { return session.signing || session.decryption; });
}

CK_SESSION_HANDLE Script::openSession(CK_SLOT_ID slot, CK_FLAGS flags) {
  const CK_SESSION_HANDLE handle = nextSession_++;
  Session& session = sessions_[handle];
  session.slot = slot;
  session.flags = flags;
  return handle;
}

void Script::closeSession(CK_SESSION_HANDLE handle) {
  const CK_SLOT_ID slot = sessions_.at(handle).slot;
  const std::vector<CK_OBJECT_HANDLE> objects = sessions_.at(handle).objects;
  sessions_.erase(handle);
  const bool lastOne = std::none_of(sessions_.begin(), sessions_.end(),
                                    [&](const auto& other) { return other.second.slot == slot; });
  Slot* const holder = findSlot(slot);
  if (!holder || !holder->card) return;
  if (lastOne) holder->card->loggedIn = false;
  for (const CK_OBJECT_HANDLE object : objects) holder->card->objects.erase(object);
}

void Script::closeSessionsOf(CK_SLOT_ID slot) {
  for (const CK_SESSION_HANDLE handle : openSessions()) {
    if (sessions_.at(handle).slot == slot) closeSession(handle);
  }
}

Session* Script::findSession(CK_SESSION_HANDLE handle, CK_RV& outCode) {
  const auto found = sessions_.find(handle);
  if (found != sessions_.end()) return &found->second;
  const auto pulled = pulledSessions_.find(handle);
  outCode = pulled == pulledSessions_.end() ? CKR_SESSION_HANDLE_INVALID : pulled->second;
  return nullptr;
}

Slot* Script::findSlot(CK_SLOT_ID id) {
  const auto found = slots_.find(id);
  return found == slots_.end() ? nullptr : &found->second;
}

std::size_t Script::record(std::string_view function, std::string arguments) {
  calls_.push_back({std::string{function}, std::string{function} + "(" + std::move(arguments) + ")", CKR_OK});
  return calls_.size() - 1;
}

void Script::setResult(std::size_t place, CK_RV result) {
  // A hook may have made the script forget its calls.
  if (place < calls_.size()) calls_[place].result = result;
}

std::optional<CK_RV> Script::dueFault(std::string_view function) {
  std::optional<CK_RV> due;
  for (Fault& fault : faults_) {
    if (!fault.function.empty() && fault.function != function) continue;
    const std::size_t place = fault.seen++;
    const bool hit = fault.times == Times::kOnce ? place == fault.n : place >= fault.n;
    if (!hit || due) continue;
    fault.fired = true;
    due = fault.code;
  }
  return due;
}

}  // namespace mirel::test

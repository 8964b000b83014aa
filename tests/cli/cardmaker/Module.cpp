#include "Module.h"

#include <dlfcn.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace mirel::cardmaker {
namespace {

constexpr const char* kOfficerPin = "12345678";

void require(CK_RV result, const char* function) {
  if (result == CKR_OK) return;
  std::ostringstream message;
  message << function << " answered 0x" << std::hex << result;
  throw std::runtime_error{message.str()};
}

CK_UTF8CHAR_PTR chars(std::string& text) { return reinterpret_cast<CK_UTF8CHAR_PTR>(text.data()); }

}  // namespace

void Template::add(CK_ATTRIBUTE_TYPE type, std::string value) {
  values_.push_back(std::move(value));
  entries_.push_back({type, values_.back().data(), values_.back().size()});
}

void Template::addNumber(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
  add(type, std::string{reinterpret_cast<const char*>(&value), sizeof value});
}

void Template::addBool(CK_ATTRIBUTE_TYPE type, bool value) {
  add(type, std::string(1, static_cast<char>(value ? CK_TRUE : CK_FALSE)));
}

Module::Module(const std::filesystem::path& path) {
  void* library = dlopen(path.c_str(), RTLD_NOW);
  if (!library) throw std::runtime_error{dlerror()};
  const auto entry = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
  if (!entry) throw std::runtime_error{dlerror()};
  require(entry(&list_), "C_GetFunctionList");
  require(list_->C_Initialize(nullptr), "C_Initialize");
}

Module::~Module() { (void)list_->C_Finalize(nullptr); }  // a failure changes nothing on the tokens

std::vector<CK_SLOT_ID> Module::slots() const {
  CK_ULONG count = 0;
  require(list_->C_GetSlotList(CK_TRUE, nullptr, &count), "C_GetSlotList");
  std::vector<CK_SLOT_ID> slots(count);
  require(list_->C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
  slots.resize(count);
  return slots;
}

CK_SLOT_INFO Module::slotInfo(CK_SLOT_ID slot) const {
  CK_SLOT_INFO info{};
  require(list_->C_GetSlotInfo(slot, &info), "C_GetSlotInfo");
  return info;
}

CK_TOKEN_INFO Module::tokenInfo(CK_SLOT_ID slot) const {
  CK_TOKEN_INFO info{};
  require(list_->C_GetTokenInfo(slot, &info), "C_GetTokenInfo");
  return info;
}

void Module::initToken(CK_SLOT_ID slot, const std::string& label, const std::string& userPin) {
  std::string padded = label;
  padded.resize(sizeof CK_TOKEN_INFO::label, ' ');
  std::string officerPin = kOfficerPin;
  std::string pin = userPin;
  require(list_->C_InitToken(slot, chars(officerPin), officerPin.size(), chars(padded)), "C_InitToken");
  const CK_SESSION_HANDLE session = openSession(slot);
  require(list_->C_Login(session, CKU_SO, chars(officerPin), officerPin.size()), "C_Login");
  require(list_->C_InitPIN(session, chars(pin), pin.size()), "C_InitPIN");
  require(list_->C_CloseSession(session), "C_CloseSession");
}

CK_SESSION_HANDLE Module::openSession(CK_SLOT_ID slot) const {
  CK_SESSION_HANDLE session = 0;
  require(list_->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session),
          "C_OpenSession");
  return session;
}

CK_SESSION_HANDLE Module::logIn(CK_SLOT_ID slot, const std::string& userPin) const {
  const CK_SESSION_HANDLE session = openSession(slot);
  std::string pin = userPin;
  require(list_->C_Login(session, CKU_USER, chars(pin), pin.size()), "C_Login");
  return session;
}

void Module::createObject(CK_SESSION_HANDLE session, Template& attributes) const {
  CK_OBJECT_HANDLE object = 0;
  std::vector<CK_ATTRIBUTE>& entries = attributes.entries();
  require(list_->C_CreateObject(session, entries.data(), entries.size(), &object), "C_CreateObject");
}

}  // namespace mirel::cardmaker

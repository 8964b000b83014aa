#pragma once

#include <deque>
#include <filesystem>
#include <string>
#include <vector>

#include "bridge/cryptoki.h"

namespace mirel::cardmaker {

/// A template for C_CreateObject that owns its values. They hold still, so it cannot be copied.
class Template {
 public:
  Template() = default;
  Template(const Template&) = delete;
  Template& operator=(const Template&) = delete;

  void add(CK_ATTRIBUTE_TYPE type, std::string value);
  void addNumber(CK_ATTRIBUTE_TYPE type, CK_ULONG value);
  void addBool(CK_ATTRIBUTE_TYPE type, bool value);

  [[nodiscard]] std::vector<CK_ATTRIBUTE>& entries() noexcept { return entries_; }

 private:
  std::deque<std::string> values_;
  std::vector<CK_ATTRIBUTE> entries_;
};

/// The module from C_Initialize to C_Finalize. All operations throw std::runtime_error, naming the
/// function and its result, when a call fails.
class Module {
 public:
  /// Loads and initialises. The library stays loaded; a new object initialises it again and so sees
  /// the tokens that were made in between.
  explicit Module(const std::filesystem::path& path);
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;
  ~Module();

  /// The slots that hold a token, initialised or not, in the module's order.
  [[nodiscard]] std::vector<CK_SLOT_ID> slots() const;
  [[nodiscard]] CK_SLOT_INFO slotInfo(CK_SLOT_ID slot) const;
  [[nodiscard]] CK_TOKEN_INFO tokenInfo(CK_SLOT_ID slot) const;

  /// Makes a token in the slot. `label`: at most 32 bytes, shorter ones are padded with blanks.
  void initToken(CK_SLOT_ID slot, const std::string& label, const std::string& userPin);

  /// Opens a session with the user logged in.
  [[nodiscard]] CK_SESSION_HANDLE logIn(CK_SLOT_ID slot, const std::string& userPin) const;
  void createObject(CK_SESSION_HANDLE session, Template& attributes) const;

 private:
  [[nodiscard]] CK_SESSION_HANDLE openSession(CK_SLOT_ID slot) const;

  CK_FUNCTION_LIST_PTR list_ = nullptr;
};

}  // namespace mirel::cardmaker

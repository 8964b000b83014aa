#pragma once

#include <span>
#include <string>
#include <vector>

#include "ArgumentTable.h"

namespace mirel::recording {

/// The call of a module's own function, with the arguments that are under way.
class Forward {
 public:
  template <typename Call>
  explicit Forward(Call& call) noexcept
      : call_{&call}, run_{[](void* known) -> CK_RV { return (*static_cast<Call*>(known))(); }} {}

  [[nodiscard]] CK_RV operator()() const { return run_(call_); }

 private:
  void* call_;
  CK_RV (*run_)(void*);
};

/// A module of our own that stands where another one is expected. Its functions are called without anything
/// that says which module is meant, so a process has one in each place: the one that was made last.
///
/// A caller may hold the lock of the process for calls into modules. So nothing that calls a module may be
/// called from here.
class ModuleFront {
 public:
  enum class Place {
    kRecorder,  ///< before a module, or before a replayer
    kReplayer
  };

  explicit ModuleFront(Place place) noexcept;
  ModuleFront(const ModuleFront&) = delete;
  ModuleFront& operator=(const ModuleFront&) = delete;
  virtual ~ModuleFront();

  /// Stands for C_GetFunctionList.
  virtual CK_RV getFunctionList(CK_FUNCTION_LIST** outList) noexcept = 0;

  /// Stands for each of the other functions.
  virtual CK_RV called(const char* function, std::span<const Word> words, const Forward& module) noexcept = 0;

  /// The function of this list that `getFunctionList` stands behind.
  [[nodiscard]] CK_C_GetFunctionList entryPoint() const noexcept;

  /// The module's own list, to which `Forward` leads; null: there is none.
  [[nodiscard]] const CK_FUNCTION_LIST* behind() const noexcept { return behind_; }

 protected:
  /// Hands out functions in place of those that `list` has, and leads to them. It stays valid.
  [[nodiscard]] CK_FUNCTION_LIST* frontOf(const CK_FUNCTION_LIST& list);
  /// The same without a module, and without the functions of these names.
  [[nodiscard]] CK_FUNCTION_LIST* frontWithout(const std::vector<std::string>& missing, CK_VERSION version);

  /// The names of the functions that the list lacks.
  [[nodiscard]] static std::vector<std::string> missingIn(const CK_FUNCTION_LIST& list);

 private:
  Place place_;
  const CK_FUNCTION_LIST* behind_ = nullptr;
  CK_FUNCTION_LIST behindCopy_{};
  CK_FUNCTION_LIST list_{};
};

}  // namespace mirel::recording

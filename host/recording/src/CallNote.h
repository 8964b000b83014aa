#pragma once

#include <map>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "ArgumentTable.h"
#include "recording/RecordedCall.h"

namespace mirel::recording {

/// What one call is given and what the module writes, as far as the table of arguments lets it be known. It
/// keeps nothing of what it may not tell.
class CallNote {
 public:
  /// To be made before the module is called. `row`: null where the arguments are not known.
  CallNote(const FunctionRow* row, std::span<const Word> words);

  [[nodiscard]] const Fields& in() const noexcept { return in_; }

  /// After the call. `ofCertificate`: the object was found as a certificate.
  [[nodiscard]] Fields out(CK_RV result, bool ofCertificate) const;

 private:
  void noteIn(const Argument& argument, const Word* words);
  void noteOut(const Argument& argument, const Word* words, CK_RV result, bool ofCertificate,
               Fields& out) const;
  void noteBuffer(const Argument& argument, const Word* words, CK_RV result, Fields& out) const;
  [[nodiscard]] List answers(const Word* words, CK_RV result, bool ofCertificate) const;

  std::span<const Argument> arguments_;
  std::span<const Word> words_;
  Fields in_;
  std::vector<CK_ATTRIBUTE> offered_;  // as they were before the module had them
  CK_ULONG room_ = 0;                  // of the buffer or list that the call has
};

/// Which objects a module has given out as certificates, and as nothing else since.
class FoundCertificates {
 public:
  /// Learns from a call that has come back.
  void learn(const RecordedCall& call);

  /// Whether the object that the call is about is one.
  [[nodiscard]] bool isAbout(const std::string& function, const Fields& in) const;

 private:
  std::map<std::uint64_t, std::uint64_t> slots_;                    // of the sessions
  std::map<std::uint64_t, bool> searches_;                          // of the sessions: for certificates
  std::set<std::pair<std::uint64_t, std::uint64_t>> certificates_;  // slot and object
};

}  // namespace mirel::recording

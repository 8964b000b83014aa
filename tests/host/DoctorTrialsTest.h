#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/CardReportTest.h"
#include "host/DoctorTest.h"

namespace mirel::test {

/// An examination with a login, of the card of KeyClientTest.
class DoctorTrials : public KeyClientTest {
 protected:
  [[nodiscard]] Diagnosis diagnosis() { return diagnosisWith(pins); }
  [[nodiscard]] Diagnosis diagnosisWith(GivenPins& given) {
    Examination wanted{{std::nullopt, true}};
    wanted.onStart = [this](std::string_view check) { begun.emplace_back(check); };
    wanted.onCheck = [this](const Diagnosis& soFar) { told.push_back(soFar.checks.back().name); };
    wanted.pins = [&given](Host&, const Reader&) { return handedOn(given); };
    return diagnose(services(), wanted);
  }
  /// The codes of that check's findings.
  [[nodiscard]] std::vector<std::string> codesOfCheck(const Diagnosis& found, const char* name) const {
    return codesOf(Diagnosis{{checkIn(found, name)}});
  }

  std::vector<std::string> begun;
  std::vector<std::string> told;
};

}  // namespace mirel::test

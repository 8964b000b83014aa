#include "Guard.h"

#include "Convert.h"
#include "platform/Log.h"

namespace mirel {
namespace {

constexpr const char* kUnit = "Guard";
constexpr int kRaisedLine = 15;

}  // namespace

void logRaised(const char* what, NSException* exception) noexcept {
  systemLog()->systemError(logLine("[%s-%d] %s: the system raised %@: %@; see \"mireltoken items\"", kUnit,
                                   kRaisedLine, what, textOf([exception name]), textOf([exception reason])));
}

}  // namespace mirel

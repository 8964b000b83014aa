#include "Guard.h"

#include "Convert.h"
#include "platform/Log.h"

namespace mirel {

void logRaised(const char* what, NSException* exception) noexcept {
  systemLog()->systemError(logLine("%s: the system raised %@: %@; see \"mireltoken items\"", what,
                                   textOf([exception name]), textOf([exception reason])));
}

}  // namespace mirel

#include "platform/ProgramRunner.h"

namespace mirel {

std::shared_ptr<ProgramRunner> systemProgramRunner() { return nullptr; }

}  // namespace mirel

#include "platform/ProgramRunner.h"

namespace mirel {

std::shared_ptr<ProgramRunner> systemProgramRunner() { return programRunnerWith({}); }

}  // namespace mirel

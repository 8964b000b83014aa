#pragma once

#include "Options.h"
#include "host/Failure.h"

namespace mirel::cli {

/// Takes from MIRELTOKEN_MODULE and MIRELTOKEN_READER what the command line leaves open, also into its words.
/// A home folder that is given there says which module; the command that lists the readers lists all.
void takeVariables(Options& options);

/// The failure of a run with these options, naming the variable that has chosen the module or the reader
/// which it is about.
[[nodiscard]] Failure namingVariables(Failure failure, const Options& options);

}  // namespace mirel::cli

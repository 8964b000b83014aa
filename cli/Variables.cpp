#include "Variables.h"

#include "Commands.h"
#include "platform/Environment.h"

namespace mirel::cli {

void takeVariables(Options& options) {
  if (!options.modulePath && !options.home && !options.replay) {
    options.modulePath = callersVariable("MIRELTOKEN_MODULE");
    options.moduleIsFromVariable = options.modulePath.has_value();
    if (options.moduleIsFromVariable) options.words.insert(options.words.end(), {"--module", "PATH"});
  }
  // Whoever looks for the right name must not be kept from seeing it by a wrong one.
  if (!options.reader && options.command != &readersCommand && !options.replay) {
    options.reader = callersVariable("MIRELTOKEN_READER");
    options.readerIsFromVariable = options.reader.has_value();
    if (options.readerIsFromVariable)
      options.words.insert(options.words.end(), {"--reader", *options.reader});
  }
}

Failure namingVariables(Failure failure, const Options& options) {
  const bool aboutModule =
      failure.kind == FailureKind::kModuleNotLoadable || failure.kind == FailureKind::kModuleRefuses;
  if (aboutModule && options.moduleIsFromVariable) {
    failure.what.append(" (MIRELTOKEN_MODULE names it)");
    if (failure.advice == UserStep::kCheckModulePath) failure.advice = "check the path in MIRELTOKEN_MODULE";
    if (failure.advice == UserStep::kCheckModuleKind)
      failure.advice = "check that MIRELTOKEN_MODULE names a PKCS #11 module for this system";
  }
  if (failure.kind == FailureKind::kNoCard && options.readerIsFromVariable)
    failure.what.append(" (MIRELTOKEN_READER names the reader)");
  return failure;
}

}  // namespace mirel::cli

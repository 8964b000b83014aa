#pragma once

#include <vector>

#include "faults/Fault.h"
#include "faults/FaultyCard.h"

namespace mirel::test {

/// Every fault for a command whose calls, when all goes well, are those of the record.
[[nodiscard]] std::vector<Fault> faultsFor(const Record& record);

}  // namespace mirel::test

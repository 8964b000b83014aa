#pragma once

#include <string>

namespace mirel::test {

/// The name of the driver's class, as the extension's property list tells it to the system; empty when it
/// tells none.
[[nodiscard]] std::string driverClassInPropertyList();

}  // namespace mirel::test

#pragma once

namespace mirel::test {

/// Under a sanitizer: ends the program with a report when memory has leaked. To be called at the end of
/// main, because when the program exits Foundation forgets some of its own objects without freeing them.
void checkForLeaks();

}  // namespace mirel::test

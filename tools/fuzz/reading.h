// Every operation on a victim that may only be read: reads answer as they do for a writer, what
// would write says so at once, and no byte changes; also beside a writer, and after one's death.
#pragma once

#include <cstdint>

namespace fuzz {

// Tells of each finding on standard output. True if there was none.
bool sweepForReading(uint32_t firstKey);

}  // namespace fuzz

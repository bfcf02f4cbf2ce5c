// Internals of the dispatcher that tests and benchmarks reach through the library's own code.
#pragma once

#include <cstdint>
#include <ctime>

namespace nm {

// Fills deadline with now + timeout_ms (wall clock, for sem_timedwait); 0 or 0xFD00FFFB.
int32_t getabstime(struct timespec *deadline, uint32_t timeout_ms);

} // namespace nm

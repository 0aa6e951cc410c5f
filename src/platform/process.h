// State of the process that machines on several threads share: the environment
// (which also holds the time zone) and the C library's random generator. The engine
// reaches each only under its lock.
#pragma once

#include <mutex>

namespace qel {

// Held while the engine reads or changes the process environment, and while the C
// library reads the time zone from it during a local-time conversion.
std::mutex& environmentLock();

// The C library's generator: one sequence for the whole process.
int drawRandom();
void seedRandom(unsigned int seed);

}  // namespace qel

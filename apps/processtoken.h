// Processes, as records that outlive them name them.
#pragma once

#include <cstdint>

#include <sys/types.h>

namespace tolvin
{

// A number that names a process a little better than its id, which another one gets when it is gone: the id, below 2 to the 22nd on
// Linux, and above it ten bits of when the process was started. Never 0. Alike for programs of 32 and of 64 bits.
std::uint32_t ownProcessToken();

pid_t processOf(std::uint32_t token);

// Whether the process is still there. One that has ended and waits for its parent to notice is not. What cannot be looked at, as a
// process of another user may be hidden, is taken to be there.
bool isAlive(pid_t process);
bool isTokenAlive(std::uint32_t token);

} // namespace tolvin

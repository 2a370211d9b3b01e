// The world around a user of named objects, as far as tests look at it or change it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace kinetrel::test {

// A name in the system that no other run of any test has.
std::string UniqueName(const std::string& word);

// Whether a process waits for another one, or is in that system call of Linux. On Windows, which
// does not tell, true after a while.
bool IsAsleep(pid_t process, long call);
inline constexpr long kWaitForOthers = -1;

// Whether the system has a shared memory, mutex or event of that name.
bool InSystem(const std::string& name);

// Ends this process at once, as a kill from outside does.
[[noreturn]] void DieAtOnce();

// Of the calling process, and on Linux only; false or 0 where that cannot be.
bool BecomeAccount(unsigned account);
bool SetFileMask(unsigned mask);
bool ShrinkSharedMemory(std::size_t bytes);  // from now on it has some of its own, of that size
std::size_t CountObjects();                  // in all of the system

}  // namespace kinetrel::test

// The world around a user of named objects, as far as tests look at it or change it.
#pragma once

#include <cstddef>
#include <string>

namespace kinetrel::test {

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

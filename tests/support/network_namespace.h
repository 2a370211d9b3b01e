// A network of the test's own: the loopback interface, which carries multicast, and nothing else.
// What a test sends there no other program receives, and nothing leaves the machine.
#pragma once

#include <string>

namespace kinetrel::test {

// Moves this thread, and the programs that it starts from now on, into a new network; once in a
// process. Returns  empty, or why the system does not permit it.
std::string EnterOwnNetwork();

// Takes the loopback interface down, and up again with its routes.
void SetLoopback(bool up);

}  // namespace kinetrel::test

// The system calls that the module makes.
#pragma once

namespace qz::trace {

// Puts recording functions into the places through which the loaded library `library`, and no
// other, calls the system. What stood there before is called by them: a program's own functions of
// these names stay in use.
void redirectSystemCalls(void* library);

}  // namespace qz::trace

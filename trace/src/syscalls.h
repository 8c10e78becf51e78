// The system calls that the module makes.
#pragma once

namespace qz::trace {

// Makes the loaded library `library`, and no other, call recording functions instead of the
// system's. These call what the library called before: a program's own functions of these names
// stay in use.
void redirectSystemCalls(void* library);

}  // namespace qz::trace

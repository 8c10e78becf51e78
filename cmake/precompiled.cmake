# Headers that most files of a program include, parsed once: parsing takes most of the time of a
# build. Each file still includes what it uses; scripts/analyse compiles it without these.

# qziop_precompile(TARGET [HEADER...]): the common headers, and those that the target adds.
function(qziop_precompile target)
  target_precompile_headers(${target} PRIVATE <algorithm> <filesystem> <fmt/format.h> <fstream> <map>
    <memory> <optional> <random> <set> <string> <vector> ${ARGN})
endfunction()

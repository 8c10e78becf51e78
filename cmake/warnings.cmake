# The warnings for all our own code, as errors:
# `target_link_libraries(x PRIVATE qziop_warnings)`.
add_library(qziop_warnings INTERFACE)
target_compile_options(qziop_warnings INTERFACE -Wall -Wextra -Wconversion -Wshadow -Werror)

# The flags that Debian builds its packages with, for release builds of all targets. Sanitizers have
# their own checks, which cannot be combined with _FORTIFY_SOURCE.
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

add_compile_options(-Wformat -Werror=format-security)
add_link_options(-Wl,-z,relro -Wl,-z,now)
if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize|--coverage")
  add_compile_options(-fstack-protector-strong "$<$<CONFIG:Release>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
endif()

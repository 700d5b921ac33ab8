# Flags for our own targets only; system headers are not ours to fix.
add_library(kelvane_warnings INTERFACE)
target_compile_options(kelvane_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(KELVANE_WERROR)
  target_compile_options(kelvane_warnings INTERFACE -Werror)
endif()

# Flags for our own targets only; system headers are not ours to fix.
add_library(kelvane_warnings INTERFACE)
target_compile_options(kelvane_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
# When it optimises, GCC 12 takes `"text" + std::string` for overlapping memory.
target_compile_options(kelvane_warnings INTERFACE
  $<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
if(KELVANE_WERROR)
  target_compile_options(kelvane_warnings INTERFACE -Werror)
endif()

if(KELVANE_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# A run looks for races alone: the other sanitizers cannot share a program with this one.
if(KELVANE_THREAD_SANITIZER)
  if(KELVANE_SANITIZE)
    message(FATAL_ERROR "KELVANE_THREAD_SANITIZER and KELVANE_SANITIZE exclude each other")
  endif()
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

# Which lines ran, written by every process when it ends; scripts/coverage reads it.
if(KELVANE_COVERAGE)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "KELVANE_COVERAGE needs clang: llvm-cov reads what its compiler writes")
  endif()
  # Counters live in the mapped file, so that processes count that are killed or abort.
  add_compile_options(-fprofile-instr-generate -fcoverage-mapping
    "SHELL:-mllvm -runtime-counter-relocation")
  add_link_options(-fprofile-instr-generate)
endif()

# Coverage for libFuzzer in everything it runs; its main only in the drivers.
if(KELVANE_FUZZERS)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

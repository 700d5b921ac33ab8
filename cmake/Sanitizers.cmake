if(KELVANE_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# Coverage for libFuzzer in everything it runs; its main only in the drivers.
if(KELVANE_FUZZERS)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

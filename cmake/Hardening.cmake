# Symbols are bound when a program starts. Bound at their first use, they would have the dynamic
# linker save the vector registers, with whatever part of a key is in them, to the stack; and the
# table of them stays writable. Under sanitizers it does no harm either.
if(NOT APPLE)
  add_link_options(LINKER:-z,relro LINKER:-z,now)
endif()

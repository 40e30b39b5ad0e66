# Floating-point results are part of the library's contract: never let the
# compiler fuse a multiply and an add (GCC does so by default on arm64) and
# never relax IEEE semantics.
add_compile_options(-ffp-contract=off -fno-fast-math)
add_compile_options(-Wall -Wextra)

set(VELMORA_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address,undefined or thread")
if(VELMORA_SANITIZE)
  add_compile_options(-fsanitize=${VELMORA_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${VELMORA_SANITIZE})
endif()

# The fuzzers need the library's own code instrumented for coverage, not only the harnesses.
if(VELMORA_BUILD_FUZZERS)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

option(VELMORA_WERROR "Treat warnings as errors" OFF)
if(VELMORA_WERROR)
  add_compile_options(-Werror)
endif()

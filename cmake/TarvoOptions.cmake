# Interface target tarvo_options: warnings and numerics that every part of the library is compiled with.
#
# The numerics flags are part of the results: no expression is contracted unless it is written fmaf, so that
# every device and instruction set gives the same bits.
add_library(tarvo_options INTERFACE)

set(_tarvo_numerics -ffp-contract=off -fno-trapping-math -fno-math-errno)
set(_tarvo_vector -fopenmp-simd)
set(_tarvo_warnings -Wall -Wextra -Wshadow -Wno-unknown-pragmas)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # Loops marked simd that clang leaves scalar: scripts/check_vectorised.sh asks g++ about them.
  list(APPEND _tarvo_warnings -Wno-pass-failed)
endif()
if(TARVO_WERROR)
  list(APPEND _tarvo_warnings -Werror)
endif()
if(TARVO_ISA STREQUAL "v3")
  list(APPEND _tarvo_vector -march=x86-64-v3)
elseif(TARVO_ISA STREQUAL "v4")
  list(APPEND _tarvo_vector -march=x86-64-v4)
endif()
if(TARVO_SANITIZE)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # g++ 12 takes parts of the C++ library for uninitialised once sanitizers have changed the code.
    list(APPEND _tarvo_warnings -Wno-maybe-uninitialized)
  endif()
  list(APPEND _tarvo_vector -fsanitize=${TARVO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(tarvo_options INTERFACE -fsanitize=${TARVO_SANITIZE})
  target_compile_definitions(tarvo_options INTERFACE TARVO_POOL_PASSES_THROUGH=1)
endif()

set(_tarvo_host ${_tarvo_warnings} ${_tarvo_numerics} ${_tarvo_vector})
string(REPLACE ";" "," _tarvo_host_list "${_tarvo_host}")
target_compile_options(tarvo_options INTERFACE "$<$<COMPILE_LANGUAGE:CXX>:${_tarvo_host}>")
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" OR CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(tarvo_options INTERFACE "$<$<COMPILE_LANGUAGE:CXX>:-Wpedantic>")
endif()
if(TARVO_WITH_CUDA)
  target_compile_options(tarvo_options INTERFACE
    "$<$<COMPILE_LANGUAGE:CUDA>:-Xcompiler=${_tarvo_host_list}>"
    "$<$<COMPILE_LANGUAGE:CUDA>:--fmad=false;--expt-relaxed-constexpr;-lineinfo;--threads=2>")
  if(TARVO_WERROR)
    target_compile_options(tarvo_options INTERFACE "$<$<COMPILE_LANGUAGE:CUDA>:-Werror=all-warnings>")
  endif()
  target_compile_definitions(tarvo_options INTERFACE TARVO_WITH_CUDA=1)
endif()
if(TARVO_ISA STREQUAL "dispatch")
  target_compile_definitions(tarvo_options INTERFACE TARVO_ISA_DISPATCH=1)
endif()

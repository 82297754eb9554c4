# The CUDA device run by the CPU (TARVO_CUDA=EMULATED), for tests alone: units that launch kernels are compiled by the
# C++ compiler against tests/emulation, which stands for the CUDA runtime. src/ includes this file after it has made its
# targets.
if(TARVO_SANITIZE)
  message(FATAL_ERROR "TARVO_CUDA=EMULATED cannot be built with sanitizers, which do not know its stacks.")
endif()
# Buffers of exact size, given back at once: the emulation sees the first float too many.
target_compile_definitions(tarvo_options INTERFACE TARVO_POOL_PASSES_THROUGH=1)

set(_tarvo_emulation "${PROJECT_SOURCE_DIR}/tests/emulation")
target_include_directories(tarvo_objects PRIVATE ${_tarvo_emulation})
target_sources(tarvo_objects PRIVATE ${_tarvo_emulation}/emulation.cpp)
# Jumps between stacks, which a hardened longjmp takes for an error.
set_source_files_properties(${_tarvo_emulation}/emulation.cpp TARGET_DIRECTORY tarvo_objects PROPERTIES
  COMPILE_OPTIONS "-ftls-model=initial-exec;-U_FORTIFY_SOURCE")

# In place of the function in src/.
function(tarvo_device_sources)
  target_sources(tarvo_objects PRIVATE ${ARGN})
  set_source_files_properties(${ARGN} TARGET_DIRECTORY tarvo_objects PROPERTIES
    COMPILE_OPTIONS "-D__CUDACC__;-include;cuda_runtime.h;-ftls-model=initial-exec")
endfunction()

# How every source of the library is compiled: C++20 without exceptions and RTTI, hidden symbols,
# position independent, and arithmetic that gives the same bits on every compiler: no contraction
# into fused operations, no x87.

add_library(ktl_compile INTERFACE)
target_compile_features(ktl_compile INTERFACE cxx_std_20)
target_compile_options(ktl_compile INTERFACE
  -fno-exceptions -fno-rtti -fvisibility=hidden -fvisibility-inlines-hidden
  -ffp-contract=off -fno-math-errno -fno-trapping-math -fno-threadsafe-statics
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  $<$<BOOL:${KTLP6_WERROR}>:-Werror>)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86|i.86|AMD64|x86_64)" AND CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_options(ktl_compile INTERFACE -msse2 -mfpmath=sse)
  if(WIN32)
    target_compile_options(ktl_compile INTERFACE -mstackrealign)
  endif()
endif()
if(WIN32 AND CMAKE_SIZEOF_VOID_P EQUAL 8)
  target_compile_options(ktl_compile INTERFACE -Wa,-muse-unaligned-vector-move)
endif()

# ktl_layer(NAME sources...): one layer of the library, as objects that the shared and the static
# library gather.
function(ktl_layer name)
  add_library(${name} OBJECT ${ARGN})
  target_link_libraries(${name} PRIVATE ktl_compile)
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
endfunction()

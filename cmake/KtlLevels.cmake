# Level sources (kernels/*_level.cpp) are compiled once per instruction-set level, each time into a namespace of its
# own: vsq::baseline, vsq::avx2, vsq::avx512. The dispatcher learns from VSQ_HAS_X86_LEVELS which ones exist. Fused
# multiply-adds stay off: they would give other bits than the baseline.
#
# The sanitizers watch the baseline and AVX-512, between which AVX2 lies. The transforms' unrolled passes are left out: g++
# takes minutes to instrument them, and their tests have guard words around every array.

set(KTL_LEVELS baseline)
set(KTL_LEVEL_baseline_OPTIONS "")
set(KTL_LEVEL_baseline_REGISTER 16)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(AMD64|x86_64)" AND CMAKE_SIZEOF_VOID_P EQUAL 8)
  list(APPEND KTL_LEVELS avx2 avx512)
  set(KTL_LEVEL_avx2_OPTIONS -mavx2 -mbmi -mbmi2)
  set(KTL_LEVEL_avx2_REGISTER 32)
  set(KTL_LEVEL_avx512_OPTIONS -mavx2 -mbmi -mbmi2 -mavx512f -mavx512bw -mavx512dq -mavx512vl
      -mprefer-vector-width=512)
  set(KTL_LEVEL_avx512_REGISTER 64)
endif()

# ktl_level_sources(TARGET_PREFIX sources...): defines TARGET_PREFIX_<level> for each level.
function(ktl_level_sources prefix)
  foreach(level IN LISTS KTL_LEVELS)
    ktl_layer(${prefix}_${level} ${ARGN})
    target_compile_options(${prefix}_${level} PRIVATE ${KTL_LEVEL_${level}_OPTIONS}
      "$<$<CXX_COMPILER_ID:GNU>:-Wno-psabi;-Wno-maybe-uninitialized;-Wno-stringop-overflow>" $<$<CONFIG:Release,RelWithDebInfo>:-O3>)
    if(KTLP6_SANITIZED AND level STREQUAL avx2)
      target_compile_options(${prefix}_${level} PRIVATE -fno-sanitize=all)
    endif()
    target_compile_definitions(${prefix}_${level} PRIVATE
      VSQ_LEVEL=${level} VSQ_REGISTER_BYTES=${KTL_LEVEL_${level}_REGISTER})
  endforeach()
endfunction()

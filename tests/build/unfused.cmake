# Fused multiply-adds stand in the shared module only where they change no result. Elsewhere they
# would skip a rounding, and levels, compilers and targets would differ in their last bits.
# Mnemonics of x86 (vfmadd132ps, vfnmsub231sd, ...) and of aarch64 (fmla, fnmadd, ...).
#   cmake -D OBJDUMP=<objdump> -D MODULE=<shared module> -P unfused.cmake
cmake_minimum_required(VERSION 3.22)

# The functions that may fuse, level by level, each with the reason why its products are exact. The
# significands of two floats have 24 bits each, their product 48 at most, and a double 53; its
# exponent, from 2^-298 to 2^256, is a double's, too.
set(exact
  "dotProduct\\(float const\\*, float const\\*, int\\)" # floats, widened to double
  "groupOfLags<[0-9]+>\\(.*\\)" # vsqsAutoCorr: floats of one signal, widened to double
  "filter\\(vsq::MelPlan const&, .*\\)" # mel filters: a bin and a weight, both values of floats
)
list(JOIN exact "|" exact)
set(allowed "(void |bool |double )?vsq::(avx2|avx512)::\\(anonymous namespace\\)::(${exact})")

set(mnemonics "[ \t](vfn?m(add|sub)|fn?m(add|sub)|fml[as])[a-z0-9]*[ \t]")
execute_process(COMMAND ${OBJDUMP} -d -C --no-show-raw-insn ${MODULE}
  COMMAND grep -E ">:$|${mnemonics}"
  OUTPUT_VARIABLE lines ERROR_VARIABLE errors RESULTS_VARIABLE results)
list(GET results 0 disassembled)
if(NOT disassembled EQUAL 0)
  message(FATAL_ERROR "${OBJDUMP} cannot read ${MODULE}: ${errors}")
endif()

# A CMake list takes neither brackets nor semicolons in its elements.
string(REGEX REPLACE "[][;]" "_" lines "${lines}")
string(REPLACE "\n" ";" lines "${lines}")
set(function "")
set(fused "")
foreach(line IN LISTS lines)
  if(line MATCHES "^[0-9a-f]+ <(.*)>:$")
    set(function "${CMAKE_MATCH_1}")
  elseif(line AND NOT function MATCHES "^${allowed}( _clone .*_)*$")
    string(APPEND fused "${function}:\n${line}\n")
  endif()
endforeach()
if(fused)
  string(SUBSTRING "${fused}" 0 2000 fused)
  message(FATAL_ERROR "fused multiply-adds in ${MODULE}:\n${fused}")
endif()

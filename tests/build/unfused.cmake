# No fused multiply-add stands anywhere in the shared module: it would skip a rounding, and levels,
# compilers and targets would differ in their last bits. Mnemonics of x86 (vfmadd132ps,
# vfnmsub231sd, ...) and of aarch64 (fmla, fnmadd, ...).
#   cmake -D OBJDUMP=<objdump> -D MODULE=<shared module> -P unfused.cmake
cmake_minimum_required(VERSION 3.22)
execute_process(COMMAND ${OBJDUMP} -d --no-show-raw-insn ${MODULE}
  COMMAND grep -E "[[:space:]](vfn?m(add|sub)|fn?m(add|sub)|fml[as])[a-z0-9]*[[:space:]]"
  OUTPUT_VARIABLE fused ERROR_VARIABLE errors RESULTS_VARIABLE results)
list(GET results 0 disassembled)
if(NOT disassembled EQUAL 0)
  message(FATAL_ERROR "${OBJDUMP} cannot read ${MODULE}: ${errors}")
endif()
if(fused)
  string(SUBSTRING "${fused}" 0 2000 fused)
  message(FATAL_ERROR "fused multiply-adds in ${MODULE}:\n${fused}")
endif()

# One short run of qimra-bench (cmake -DPROGRAM=... -DJSON=out.json
# [-DEMULATOR=qemu-arm;-L;...] -P run_smoke.cmake): two cheap benchmarks,
# one repetition, a tiny minimum time. Passes when it exits 0, prints the
# summary with the bare table pass row, and writes a JSON report whose
# entries carry the fields the comparison scripts read.
file(REMOVE ${JSON})
execute_process(
  COMMAND ${EMULATOR} ${PROGRAM}
          "--benchmark_filter=^(table_pass/1280x720|stage/gamma_table)/"
          --benchmark_repetitions=1 --benchmark_min_time=0.01s
          --benchmark_out=${JSON} --benchmark_out_format=json
  RESULT_VARIABLE status
  OUTPUT_VARIABLE output
  ERROR_VARIABLE errors)
message("${output}")
if(NOT status EQUAL 0)
  message(FATAL_ERROR "qimra-bench exited with ${status}:\n${errors}")
endif()
foreach(expected "qimra-bench summary" "bare table pass (one thread)" "gamma table")
  string(FIND "${output}" "${expected}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "no \"${expected}\" in the output")
  endif()
endforeach()

file(READ ${JSON} report)
string(JSON count ERROR_VARIABLE json_error LENGTH "${report}" benchmarks)
if(json_error)
  message(FATAL_ERROR "the JSON report does not parse: ${json_error}")
endif()
if(NOT count EQUAL 2)
  message(FATAL_ERROR "expected 2 benchmark entries in the JSON report, found ${count}")
endif()
string(JSON executable GET "${report}" context executable)
if(executable STREQUAL "")
  message(FATAL_ERROR "the JSON report's context names no executable")
endif()
math(EXPR last "${count} - 1")
foreach(i RANGE ${last})
  foreach(field name run_name run_type repetitions iterations real_time cpu_time time_unit)
    string(JSON value ERROR_VARIABLE field_error GET "${report}" benchmarks ${i} ${field})
    if(field_error)
      message(FATAL_ERROR "benchmark entry ${i} has no ${field}: ${field_error}")
    endif()
  endforeach()
  string(JSON unit GET "${report}" benchmarks ${i} time_unit)
  string(JSON type GET "${report}" benchmarks ${i} run_type)
  if(NOT unit STREQUAL "ms" OR NOT type STREQUAL "iteration")
    message(FATAL_ERROR "benchmark entry ${i}: time_unit ${unit}, run_type ${type}")
  endif()
endforeach()

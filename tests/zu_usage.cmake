# cmake -DZU=path/to/zu -P zu_usage.cmake: every argument list below is a usage error, which
# zu answers with exit code 2 and its usage on stderr.
foreach(case "demo|--frob" "demo|--frob|1" "demo|extra" "demo|--count|nine" "demo|--count"
             "demo|--keep=yes" "inspect" "inspect|a|b" "clean|-x|dir" "frobnicate" "")
  string(REPLACE "|" ";" arguments "${case}")
  execute_process(COMMAND ${ZU} ${arguments} RESULT_VARIABLE code OUTPUT_QUIET ERROR_VARIABLE err)
  if(NOT code EQUAL 2 OR NOT err MATCHES "usage: zu")
    message(FATAL_ERROR "zu ${arguments}: exit ${code}, stderr:\n${err}")
  endif()
endforeach()

# Runs an example and compares what it prints:
#   cmake -DEXPECT=<regular expression> -P run-example.cmake <program> [<argument>...]
set(command)
foreach(i RANGE 4 ${CMAKE_ARGC})
  list(APPEND command ${CMAKE_ARGV${i}})
endforeach()
execute_process(COMMAND ${command} RESULT_VARIABLE result OUTPUT_VARIABLE output)
if(NOT result EQUAL 0 OR NOT output MATCHES "${EXPECT}")
  message(FATAL_ERROR "Expected '${EXPECT}', but the result was ${result}:\n"
    "${output}")
endif()

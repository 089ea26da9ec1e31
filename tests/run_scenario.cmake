# Runs one scenario script through dpm-host and checks its exit status.
execute_process(COMMAND ${HOST} ${HOST_ARGS} ${SCRIPT} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT "${rc}" STREQUAL "${EXPECT}")
  message("${out}")
  message("${err}")
  message(FATAL_ERROR "dpm-host ${SCRIPT}: exit status ${rc}, expected ${EXPECT}")
endif()

# Runs one scenario script through dpm-host and checks its exit status.
# FLUSH (redis-cli) and SOCK: start on an empty Redis server.
if(FLUSH)
  execute_process(COMMAND ${FLUSH} -s ${SOCK} flushall OUTPUT_QUIET RESULT_VARIABLE frc)
  if(NOT frc EQUAL 0)
    message(FATAL_ERROR "cannot empty the Redis server on ${SOCK}")
  endif()
endif()
execute_process(COMMAND ${HOST} ${HOST_ARGS} ${SCRIPT} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT "${rc}" STREQUAL "${EXPECT}")
  message("${out}")
  message("${err}")
  message(FATAL_ERROR "dpm-host ${SCRIPT}: exit status ${rc}, expected ${EXPECT}")
endif()

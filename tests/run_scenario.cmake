# Runs one scenario script through dpm-host and checks its exit status.
# Pictures the script draws go to a folder of this run, removed afterwards.
string(RANDOM LENGTH 12 tag)
set(pictures "${CMAKE_CURRENT_BINARY_DIR}/dpm-pictures-${tag}")
execute_process(COMMAND ${HOST} --pictures ${pictures} ${HOST_ARGS} ${SCRIPT}
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
file(REMOVE_RECURSE ${pictures})
if(NOT "${rc}" STREQUAL "${EXPECT}")
  message("${out}")
  message("${err}")
  message(FATAL_ERROR "dpm-host ${SCRIPT}: exit status ${rc}, expected ${EXPECT}")
endif()

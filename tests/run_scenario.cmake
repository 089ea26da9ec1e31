# Runs one scenario script through dpm-host and checks its exit status.
# Pictures the script draws go to a folder of this run, removed afterwards.
# FLUSH (redis-cli) and SOCK: start on an empty Redis server.
# LOGS: a folder of kept logs; when it holds NAME.log for the script, the
# module's log of this run must equal it, line numbers and addresses aside.
# UPDATE_LOGS=ON writes the log of this run there instead (after a change of
# the module's messages; review the difference before committing it).
if(FLUSH)
  execute_process(COMMAND ${FLUSH} -s ${SOCK} flushall OUTPUT_QUIET RESULT_VARIABLE frc)
  if(NOT frc EQUAL 0)
    message(FATAL_ERROR "cannot empty the Redis server on ${SOCK}")
  endif()
endif()
string(RANDOM LENGTH 12 tag)
set(pictures "${CMAKE_CURRENT_BINARY_DIR}/dpm-pictures-${tag}")
get_filename_component(name ${SCRIPT} NAME_WE)
set(kept "${LOGS}/${name}.log")
if(LOGS AND (UPDATE_LOGS OR EXISTS ${kept}))
  set(log "${CMAKE_CURRENT_BINARY_DIR}/dpm-log-${tag}.log")
  list(APPEND HOST_ARGS --log ${log})
endif()
execute_process(COMMAND ${HOST} --pictures ${pictures} ${HOST_ARGS} ${SCRIPT}
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
file(REMOVE_RECURSE ${pictures})
if(NOT "${rc}" STREQUAL "${EXPECT}")
  message("${out}")
  message("${err}")
  message(FATAL_ERROR "dpm-host ${SCRIPT}: exit status ${rc}, expected ${EXPECT}")
endif()
if(log)
  # Line numbers of the sources and heap addresses change from build to build.
  file(READ ${log} text)
  file(REMOVE ${log})
  string(REGEX REPLACE "0x[0-9a-f]+" "0x?" text "\n${text}")
  string(REGEX REPLACE "\n([A-Z]+ [A-Za-z0-9_]+):[0-9]+" "\n\\1" text "${text}")
  string(SUBSTRING "${text}" 1 -1 text)
  if(UPDATE_LOGS)
    file(WRITE ${kept} "${text}")
  else()
    file(WRITE ${log} "${text}")
    execute_process(COMMAND diff -u ${kept} ${log} OUTPUT_VARIABLE difference RESULT_VARIABLE drc)
    file(REMOVE ${log})
    if(NOT drc EQUAL 0)
      message(FATAL_ERROR "dpm-host ${SCRIPT}: the module's log differs from ${kept}:\n${difference}")
    endif()
  endif()
endif()

# Private Redis server for the tests: ACTION=start|stop, DIR (holds redis.sock),
# on a unix socket only, with no persistence. Start waits until it answers.
set(sock ${DIR}/redis.sock)
if(ACTION STREQUAL "start")
  file(REMOVE_RECURSE ${DIR})
  file(MAKE_DIRECTORY ${DIR})
  execute_process(COMMAND ${SERVER} --port 0 --unixsocket ${sock} --save "" --appendonly no
                          --dir ${DIR} --daemonize yes --pidfile ${DIR}/redis.pid
                          --logfile ${DIR}/redis.log RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "redis-server did not start (${rc})")
  endif()
  foreach(try RANGE 200)
    execute_process(COMMAND ${CLI} -s ${sock} ping OUTPUT_VARIABLE out ERROR_QUIET)
    if(out MATCHES "PONG")
      return()
    endif()
    execute_process(COMMAND ${CMAKE_COMMAND} -E sleep 0.05)
  endforeach()
  message(FATAL_ERROR "redis-server on ${sock} did not answer within 10 s")
else()
  execute_process(COMMAND ${CLI} -s ${sock} shutdown nosave OUTPUT_QUIET ERROR_QUIET)
  file(REMOVE_RECURSE ${DIR})
endif()

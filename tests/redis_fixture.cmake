# Private Redis server for the tests: ACTION=start|stop, DIR (holds redis.sock),
# on a unix socket only (mode 0700, in the build tree), with no persistence.
# Start first ends a server an interrupted run left behind (its pid file), then
# waits until the new one answers. A watch ends the server when ctest (the
# parent of this script) ends without stopping it, e.g. when it is killed.
set(sock ${DIR}/redis.sock)
set(pidfile ${DIR}/redis.pid)
if(EXISTS ${pidfile})
  file(READ ${pidfile} pid)
  string(STRIP "${pid}" pid)
  if(pid MATCHES "^[0-9]+$" AND EXISTS /proc/${pid}/comm)
    file(READ /proc/${pid}/comm comm)
    if(comm MATCHES "redis-server")
      execute_process(COMMAND kill -9 ${pid})
    endif()
  endif()
endif()
if(ACTION STREQUAL "start")
  file(REMOVE_RECURSE ${DIR})
  file(MAKE_DIRECTORY ${DIR})
  execute_process(COMMAND ${SERVER} --port 0 --unixsocket ${sock} --unixsocketperm 700 --save ""
                          --appendonly no --dir ${DIR} --daemonize yes --pidfile ${pidfile}
                          --logfile ${DIR}/redis.log RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "redis-server did not start (${rc})")
  endif()
  foreach(try RANGE 200)
    execute_process(COMMAND ${CLI} -s ${sock} ping OUTPUT_VARIABLE out ERROR_QUIET)
    if(out MATCHES "PONG")
      file(READ ${pidfile} server)
      string(STRIP "${server}" server)
      execute_process(COMMAND sh -c "ctest=$(ps -o ppid= -p $PPID | tr -d ' ')
        nohup sh -c \"while kill -0 $ctest && kill -0 ${server}; do sleep 1; done; kill ${server}\" \
          >/dev/null 2>&1 &" OUTPUT_QUIET ERROR_QUIET)
      return()
    endif()
    execute_process(COMMAND ${CMAKE_COMMAND} -E sleep 0.05)
  endforeach()
  message(FATAL_ERROR "redis-server on ${sock} did not answer within 10 s")
else()
  file(REMOVE_RECURSE ${DIR})
endif()

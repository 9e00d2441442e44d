# ctest: install the build into a scratch prefix, then configure, build and run a host
# project against it. Arguments: BUILD_DIR, SOURCE_DIR, WORK_DIR, GENERATOR.
file(REMOVE_RECURSE ${WORK_DIR})
foreach(step
    "${CMAKE_COMMAND};--install;${BUILD_DIR};--prefix;${WORK_DIR}/prefix"
    "${CMAKE_COMMAND};-S;${SOURCE_DIR};-B;${WORK_DIR}/build;-G;${GENERATOR};-DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix"
    "${CMAKE_COMMAND};--build;${WORK_DIR}/build"
    "${WORK_DIR}/build/consumer")
  execute_process(COMMAND ${step} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "step failed (${result}): ${step}")
  endif()
endforeach()

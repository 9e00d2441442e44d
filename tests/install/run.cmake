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

# What the module reads at run time beside the host's executable and in the shared data folder.
foreach(file bin/cloudmaterialtheme/cloudmaterial.theme bin/cloud/html/nc.html)
  if(NOT EXISTS "${WORK_DIR}/prefix/${file}")
    message(FATAL_ERROR "the install tree lacks ${file}")
  endif()
endforeach()

# ctest: puts the library where a host developer gets it, then builds hosts against that alone.
#   MODE=install  cmake --install into <WORK_DIR>/prefix
#   MODE=deb      cpack -G DEB, then dpkg-deb -x of every package into <WORK_DIR>/root (prefix /usr)
# Against that prefix it builds the minimal host of docs/integration.md, exactly as written there,
# and the consumer in this folder, runs the consumer, and puts the host's executable in the
# prefix's bin/ as a player ships it (tst_installedhost runs it against the local cloud).
# Arguments: MODE, BUILD_DIR, SOURCE_DIR (this folder), DOC, WORK_DIR, GENERATOR, PROJECT_SOURCE_DIR.
file(REMOVE_RECURSE ${WORK_DIR})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "step failed (${result}): ${ARGN}\n${out}")
  endif()
endfunction()

if(MODE STREQUAL "install")
  set(prefix ${WORK_DIR}/prefix)
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
elseif(MODE STREQUAL "deb")
  set(prefix ${WORK_DIR}/root/usr)
  run(cpack -G DEB -B ${WORK_DIR}/debs --config ${BUILD_DIR}/CPackConfig.cmake)
  file(GLOB debs ${WORK_DIR}/debs/*.deb)
  set(names)
  foreach(deb IN LISTS debs)
    execute_process(COMMAND dpkg-deb -f ${deb} Package Depends OUTPUT_VARIABLE fields)
    message(STATUS "${fields}")
    string(REGEX MATCH "Package: [^\n]*" name "${fields}")
    list(APPEND names "${name}")
    if(name MATCHES "librxcloudmaterial[0-9]" AND NOT fields MATCHES "libqt5webenginewidgets5")
      message(FATAL_ERROR "the runtime package does not depend on the web engine:\n${fields}")
    endif()
    run(dpkg-deb -x ${deb} ${WORK_DIR}/root)
  endforeach()
  foreach(expected librxcloudmaterial0 librxcloudmaterial-dev rxhostplatform)
    if(NOT names MATCHES "Package: ${expected}(;|$)")
      message(FATAL_ERROR "cpack built no ${expected} package: ${names}")
    endif()
  endforeach()
else()
  message(FATAL_ERROR "MODE is install or deb")
endif()

# What the module reads at run time beside the host's executable.
foreach(file bin/cloudmaterialtheme/cloudmaterial.theme bin/cloud/html/nc.html
        share/themes/images/default/cloudmaterial)
  if(NOT EXISTS "${prefix}/${file}")
    message(FATAL_ERROR "the install tree lacks ${file}")
  endif()
endforeach()

# The minimal host, from the code blocks that follow "<!-- host: <file> -->" in the guide.
file(READ ${DOC} guide)
foreach(name CMakeLists.txt main.cpp)
  string(FIND "${guide}" "<!-- host: ${name} -->" at)
  if(at LESS 0)
    message(FATAL_ERROR "${DOC} shows no ${name} of the minimal host")
  endif()
  string(SUBSTRING "${guide}" ${at} -1 rest)
  string(REGEX MATCH "```[a-z]*\n(.*)" rest "${rest}")
  set(rest "${CMAKE_MATCH_1}")
  string(FIND "${rest}" "\n```" end)
  string(SUBSTRING "${rest}" 0 ${end} code)
  file(WRITE ${WORK_DIR}/host/${name} "${code}\n")
endforeach()

# A host with host libraries of its own: copies of the reference builds in a folder of the host's.
file(MAKE_DIRECTORY ${WORK_DIR}/own/lib ${WORK_DIR}/own/include)
file(GLOB own_libraries ${prefix}/lib/libpwspdlog.so ${prefix}/lib/libhvtheme.so ${prefix}/lib/librxtranslate.so)
file(COPY ${own_libraries} DESTINATION ${WORK_DIR}/own/lib)
file(COPY ${prefix}/include/rxhostplatform/ DESTINATION ${WORK_DIR}/own/include)

foreach(project host consumer consumer-own)
  set(source ${WORK_DIR}/host)
  set(options)
  if(project MATCHES "^consumer")
    set(source ${SOURCE_DIR})
  endif()
  if(project STREQUAL "consumer-own")
    set(options -DHOST_LIBRARIES=${WORK_DIR}/own)
  endif()
  run(${CMAKE_COMMAND} -S ${source} -B ${WORK_DIR}/build-${project} -G ${GENERATOR}
      -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_EXPORT_COMPILE_COMMANDS=ON ${options})
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/build-${project})
  # Only the install tree: nothing of the sources or of the build tree reaches the compiler.
  file(READ ${WORK_DIR}/build-${project}/compile_commands.json commands)
  foreach(forbidden "${PROJECT_SOURCE_DIR}/cloudmaterial" "${PROJECT_SOURCE_DIR}/platform"
                    "${BUILD_DIR}/cloudmaterial" "${BUILD_DIR}/platform")
    string(FIND "${commands}" "${forbidden}" hit)
    if(hit GREATER -1)
      message(FATAL_ERROR "the ${project} build reaches ${forbidden}")
    endif()
  endforeach()
endforeach()

run(${WORK_DIR}/build-consumer/consumer)
run(${WORK_DIR}/build-consumer-own/consumer)
file(COPY ${WORK_DIR}/build-host/player DESTINATION ${prefix}/bin)

# Runs a proxy server and a proxy client of one group as two processes on one display, then checks
# both exit codes, each side's steps in order, and the downloaded file in the server's folder.
file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}")
set(folder "${WORK}/group")
# Settings given to the server only: the client must receive them over the group's channel.
set(server_options "--role server --language zh_CN --device-name 'Lobby screen' --serial-number SN-4711 --app-version 2.3.4")
set(client_options "--role client --language en --device-name Ignored --serial-number IGNORED --app-version 0.0.1")
set(common "--group ctest-group --group-folder '${folder}' --scripted")
file(WRITE "${WORK}/run.sh" "
'${DEMO}' ${server_options} ${common} >'${WORK}/server.out' 2>'${WORK}/server.err' &
server=$!
'${DEMO}' ${client_options} ${common} >'${WORK}/client.out' 2>'${WORK}/client.err'
client=$?
wait $server
echo \"$? $client\" >'${WORK}/codes'
")
execute_process(COMMAND ${XVFB_RUN} -a sh "${WORK}/run.sh" RESULT_VARIABLE result)
file(READ "${WORK}/server.out" server_out)
file(READ "${WORK}/client.out" client_out)
message("server:\n${server_out}\nclient:\n${client_out}")
if(NOT result EQUAL 0 OR NOT EXISTS "${WORK}/codes")
  message(FATAL_ERROR "the two demos did not run (${result})")
endif()
file(STRINGS "${WORK}/codes" codes)
if(NOT codes STREQUAL "0 0")
  file(READ "${WORK}/server.err" server_err)
  file(READ "${WORK}/client.err" client_err)
  message("server's errors:\n${server_err}\nclient's errors:\n${client_err}")
  message(FATAL_ERROR "exit codes (server client): ${codes}")
endif()

# Each side's identity, as it joined the group; the other side must name it.
if(NOT server_out MATCHES "step: joined group ctest-group as (server-[0-9a-f]+)")
  message(FATAL_ERROR "the server did not join the group")
endif()
set(server_id "${CMAKE_MATCH_1}")
if(NOT client_out MATCHES "step: joined group ctest-group as (client-[0-9a-f]+)")
  message(FATAL_ERROR "the client did not join the group")
endif()
set(client_id "${CMAKE_MATCH_1}")
# The folder as a pattern: a build path may hold characters that mean something in one.
string(REGEX REPLACE "([][+.*()^$?|\\])" "\\\\\\1" folder_re "${folder}")

include(${CMAKE_CURRENT_LIST_DIR}/expectinorder.cmake)

expect_in_order(server "${server_out}"
  "step: local cloud running, config in ${folder_re}/config"
  "step: joined group ctest-group as ${server_id}"
  # The module gives a proxy server no panel.
  "step: proxy server: cloudMaterialList\\(\\) returned null"
  "step: group ctest-group open in ${folder_re}, materials in ${folder_re}/materials"
  "step: StartMqtt from ${client_id}"
  "step: DownloadFile d01 \\(harbour-sunrise.jpg\\) from ${client_id}"
  "step: downloaded d01 for ${client_id} to ${folder_re}/materials/harbour-sunrise.jpg \\([0-9]+ bytes\\)"
  "step: ${client_id} ended its scripted run with 0"
  "step: done")

# Whenever the server's own look at the cloud notices it, but before the run ends.
expect_in_order(server "${server_out}"
  "step: StartMqtt from ${client_id}"
  "step: device SN-4711 bound\n"
  "step: ${client_id} ended its scripted run")

expect_in_order(client "${client_out}"
  "step: waiting for the server of group ctest-group in ${folder_re}"
  "step: joined group ctest-group as ${client_id}"
  "step: login dialog shown"
  # Named in the server's language, which the client's module took over from its own.
  "step: region 中国 chosen"
  "step: slider check passed"
  "step: logged in as demo"
  # The server's settings, not the client's own (which the module drops on a client).
  "step: setting SetAppVersion from ${server_id}: 2.3.4\n"
  "step: setting SetDeviceName from ${server_id}: Lobby screen\n"
  "step: setting SetSerialNumber from ${server_id}: SN-4711\n"
  "step: setting SetCurrentLanguage from ${server_id}: zh_CN\n"
  "step: device SN-4711 bound by the server"
  "step: panel lists 20 materials"
  "step: downloading d01 through the server"
  "step: panel shows d01 Successed"
  "step: server's folder ${folder_re}/materials holds harbour-sunrise.jpg"
  "step: client's own folder [^\n]* stayed empty: setCloudMaterialFolderPath was dropped"
  "step: done")

# The file is where the server put it, whole, with no download left behind.
string(REGEX MATCH "to ${folder_re}/materials/harbour-sunrise.jpg \\(([0-9]+) bytes\\)" found "${server_out}")
set(reported "${CMAKE_MATCH_1}")
file(SIZE "${folder}/materials/harbour-sunrise.jpg" size)
if(size EQUAL 0 OR NOT size EQUAL reported)
  message(FATAL_ERROR "harbour-sunrise.jpg holds ${size} bytes; the server reported ${reported}")
endif()
file(GLOB leftovers "${folder}/materials/*.temp")
if(leftovers)
  message(FATAL_ERROR "unfinished downloads left: ${leftovers}")
endif()
# The server took back its announcement as it left.
if(EXISTS "${folder}/group.json")
  message(FATAL_ERROR "group.json outlived the server")
endif()

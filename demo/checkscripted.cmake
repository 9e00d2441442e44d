# Runs the scripted demo and requires a clean exit and every step in its output, in order.
execute_process(COMMAND ${XVFB_RUN} -a ${DEMO} --scripted
                RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
message("${output}")
if(NOT result EQUAL 0)
  message("${errors}")
  message(FATAL_ERROR "the scripted demo ended with ${result}")
endif()
set(expected
  "step: local cloud running"
  "step: login dialog shown"
  "step: region [^\n]* chosen"
  "step: slider check passed"
  "step: screenshot [^\n]*/demo-login.png"
  "step: logged in as demo"
  "step: panel lists 20 materials"
  "step: screenshot [^\n]*/demo-panel-list.png"
  "step: screenshot [^\n]*/demo-panel-tree.png"
  "step: downloading 3 selected materials"
  "step: downloaded d0[134] to "
  "step: downloaded d0[134] to "
  "step: downloaded d0[134] to "
  "step: dragging d01 onto the playlist with the pointer"
  "step: playlist holds harbour-sunrise.jpg"
  "step: done")
include(${CMAKE_CURRENT_LIST_DIR}/expectinorder.cmake)
expect_in_order(demo "${output}" ${expected})

# The downloads are the local cloud's real files: a JPEG picture, a WAV tune, a PDF page.
foreach(pair "d01=JPEG picture" "d03=WAV audio" "d04=PDF document")
  string(REPLACE "=" ";" pair "${pair}")
  list(GET pair 0 id)
  list(GET pair 1 kind)
  if(NOT output MATCHES "step: downloaded ${id} to [^\n]* \\(${kind}, [0-9]+ bytes\\)")
    message(FATAL_ERROR "${id} did not arrive as a ${kind}")
  endif()
endforeach()
foreach(shot demo-login.png demo-panel-list.png demo-panel-tree.png)
  string(REGEX MATCH "step: screenshot ([^\n]*/${shot})" line "${output}")
  file(SIZE "${CMAKE_MATCH_1}" bytes)
  if(bytes LESS 2000)
    message(FATAL_ERROR "screenshot ${CMAKE_MATCH_1} is ${bytes} bytes")
  endif()
endforeach()

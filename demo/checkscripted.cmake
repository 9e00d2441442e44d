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
  "step: playlist holds "
  "step: done")
set(rest "${output}")
foreach(step IN LISTS expected)
  string(REGEX MATCH "${step}.*" found "${rest}")
  if(NOT found)
    message(FATAL_ERROR "missing in the demo's output (in this order): ${step}")
  endif()
  # Past this line's "step:", so a repeated step needs a line of its own.
  string(SUBSTRING "${found}" 1 -1 rest)
endforeach()

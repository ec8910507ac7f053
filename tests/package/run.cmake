# Installs a built MeridBSP tree into a fresh prefix, then configures, builds and runs the
# consumer project against that prefix alone, and runs the installed tool.
#   cmake -DBUILD_DIR=<build tree> -DWORK_DIR=<scratch dir> [-DSANITIZE=address,undefined] -P run.cmake
# SANITIZE repeats the build tree's sanitizers, which a program linking its libraries needs too.
if(NOT BUILD_DIR OR NOT WORK_DIR)
  message(FATAL_ERROR "usage: cmake -DBUILD_DIR=... -DWORK_DIR=... -P run.cmake")
endif()
set(consumer_src ${CMAKE_CURRENT_LIST_DIR})
set(prefix ${WORK_DIR}/prefix)
set(consumer_build ${WORK_DIR}/consumer)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

function(step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

step(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=${SANITIZE}")
endif()
step(${CMAKE_COMMAND} -S ${consumer_src} -B ${consumer_build} -DCMAKE_PREFIX_PATH=${prefix}
     -DCMAKE_BUILD_TYPE=Release "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
step(${CMAKE_COMMAND} --build ${consumer_build})
step(${consumer_build}/consumer)
message(STATUS "${step_output}")
if(NOT step_output MATCHES "inside -2, outside -1")
  message(FATAL_ERROR "unexpected consumer output: ${step_output}")
endif()

# The installed tool finds its libraries and the installed demo level from the prefix.
if(EXISTS ${prefix}/bin/meridbsp)
  step(${prefix}/bin/meridbsp --version)
  step(${prefix}/bin/meridbsp demo --out ${WORK_DIR}/demo)
  foreach(f test.prt portals.obj level.mrc slice.png)
    if(NOT EXISTS ${WORK_DIR}/demo/${f})
      message(FATAL_ERROR "the installed demo did not write ${f}")
    endif()
  endforeach()
endif()

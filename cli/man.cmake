# Builds the man page from the tool's own --help, so the two never disagree:
#   cmake -DTOOL=<meridbsp> -DOUT=<meridbsp.1> -DWORK=<dir> -P man.cmake
# Every command's --help goes into a COMMANDS section after the top-level help.
execute_process(COMMAND ${TOOL} --help OUTPUT_VARIABLE top RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${TOOL} --help failed")
endif()
string(REGEX MATCH "Subcommands:\n.*" listing "${top}")
string(REGEX MATCHALL "\n  [a-z]+ " names "${listing}")
set(include "[COMMANDS]\n")
foreach(name ${names})
  string(STRIP "${name}" name)
  execute_process(COMMAND ${TOOL} ${name} --help OUTPUT_VARIABLE help)
  string(REPLACE "\\" "\\\\" help "${help}")
  string(REPLACE "\n" "\n.br\n" help "${help}")
  string(APPEND include ".SS ${name}\n.nf\n${help}\n.fi\n")
endforeach()
file(WRITE ${WORK}/meridbsp-man.include "${include}")
execute_process(COMMAND help2man --no-info --name "build BSP trees from triangle meshes and query clip BSPs"
                        --include ${WORK}/meridbsp-man.include --output ${OUT} ${TOOL}
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "help2man failed: ${err}")
endif()

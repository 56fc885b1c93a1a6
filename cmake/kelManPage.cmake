# Writes the kel(1) manual page: cmake -DKEL=path/to/kel -DOUT=kel.1 -P kelManPage.cmake
execute_process(COMMAND ${KEL} --man OUTPUT_FILE ${OUT} RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  file(REMOVE ${OUT})
  message(FATAL_ERROR "${KEL} --man failed: ${status}")
endif()

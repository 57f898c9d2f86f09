# Runs the consumer for two seconds while a producer writes, side by side (a pipeline runs its
# commands at the same time; the consumer never reads the producer's output).
string(REPLACE "|" ";" emulator "${EMULATOR}")
execute_process(
  COMMAND ${emulator} ${PRODUCER} RunTogether Example 2000 2 --pace 4
  COMMAND ${emulator} ${CONSUMER} --duration 2
  RESULTS_VARIABLE results
  OUTPUT_VARIABLE output
  ERROR_VARIABLE errors)
if(NOT results STREQUAL "0;0")
  message(FATAL_ERROR "exit codes (producer;consumer): ${results}\n${errors}")
endif()
if(NOT output MATCHES "seq [0-9]+ thread [01]")
  message(FATAL_ERROR "the consumer printed no trace of the producer:\n${output}\n${errors}")
endif()

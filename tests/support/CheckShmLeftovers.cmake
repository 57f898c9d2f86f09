# Fails when shared memory or lock files of this build tree's tests remain in /dev/shm.
file(GLOB leftovers /dev/shm/${PATTERN}*)
if(leftovers)
  string(REPLACE ";" "\n  " listing "${leftovers}")
  message(FATAL_ERROR "Tests left shared memory behind:\n  ${listing}")
endif()
message(STATUS "No shared memory left behind (${PATTERN}*)")

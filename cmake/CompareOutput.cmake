# Runs PROGRAM, keeps what it prints in the file ACTUAL and compares that with the file EXPECTED.
execute_process(
    COMMAND ${PROGRAM}
    OUTPUT_FILE ${ACTUAL}
    RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "${PROGRAM} ended with ${result}; what it printed is in ${ACTUAL}")
endif()
execute_process(
    COMMAND diff -u ${EXPECTED} ${ACTUAL}
    RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "The output differs; when it is right, copy ${ACTUAL} to ${EXPECTED}")
endif()

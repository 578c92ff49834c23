# Runs PROGRAM, keeps what it prints in the file ACTUAL and compares that with the file EXPECTED. The
# file INPUT, where it exists, is what the program reads.
if(EXISTS "${INPUT}")
    set(input INPUT_FILE ${INPUT})
endif()
execute_process(
    COMMAND ${PROGRAM}
    ${input}
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

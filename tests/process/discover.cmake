# Read by ctest before it runs anything: makes each case of a test program a test of its own, named
# PREFIX.CASE. PROGRAM, PREFIX and ENVIRONMENT are set by whoever includes this.

if(EXISTS ${PROGRAM})
    execute_process(COMMAND ${PROGRAM} --list OUTPUT_VARIABLE cases COMMAND_ERROR_IS_FATAL ANY)
    string(STRIP "${cases}" cases)
    string(REPLACE "\n" ";" cases "${cases}")
    foreach(case ${cases})
        add_test("${PREFIX}.${case}" "${PROGRAM}" "${case}")
        set_tests_properties("${PREFIX}.${case}" PROPERTIES
            TIMEOUT 1200 LABELS process ENVIRONMENT "${ENVIRONMENT}")
    endforeach()
else()
    add_test("${PREFIX}_NOT_BUILT" "${PROGRAM}")
endif()

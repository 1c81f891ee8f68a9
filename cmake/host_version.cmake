# Sets TARN_HOST_VERSION_TEXT and TARN_HOST_FLAGS and writes host/version.h.

set(finding env "KAMAILIO=${KAMAILIO}" "HOST_VERSION=${HOST_VERSION}"
            ${CMAKE_SOURCE_DIR}/tools/module-host)
if(TARN_FOR_INSTALLED)
  list(APPEND finding --installed)
endif()
execute_process(COMMAND ${finding} WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
                OUTPUT_VARIABLE host_found ERROR_VARIABLE host_refused RESULT_VARIABLE host_result
                ERROR_STRIP_TRAILING_WHITESPACE)
if(NOT host_result EQUAL 0)
  message(FATAL_ERROR "${host_refused}")
endif()
string(REGEX MATCH "version=([^\n]*)\nflags=([^\n]*)\n" host_found "${host_found}")
set(TARN_HOST_VERSION_TEXT "${CMAKE_MATCH_1}")
set(TARN_HOST_FLAGS "${CMAKE_MATCH_2}")
# The number alone, for the package.
string(REGEX REPLACE "^kamailio ([^ ]*) .*" "\\1" TARN_HOST_NUMBER "${TARN_HOST_VERSION_TEXT}")

configure_file(${CMAKE_SOURCE_DIR}/host/version.h.in
               ${CMAKE_BINARY_DIR}/generated/host/version.h @ONLY)

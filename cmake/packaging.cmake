# Where `make install` puts things, and the Debian package.
include(GNUInstallDirs)

set(MODULES_DIR "${CMAKE_INSTALL_LIBDIR}/kamailio/modules" CACHE STRING
    "The host's module directory, absolute or below the prefix")
set(TARN_MAINTAINER "tarn_memdb founders <founders@tarn-memdb.invalid>" CACHE STRING
    "Whom the package names as its maintainer")
option(TARN_INSTALL "Make what an installation has besides programs and guide" OFF)

# A package fits one version of the host, and its own version tells which.
set(TARN_PACKAGE_VERSION "${PROJECT_VERSION}+kamailio${TARN_HOST_NUMBER}")
if(JSON_ARRAYS)
  # In Debian's order behind the other one, whose place it may so take.
  string(APPEND TARN_PACKAGE_VERSION "+json")
  set(replies "Clients of JSON and XML get all lines of a listing, in an array.")
else()
  set(replies "Clients of JSON and XML get the last line of a listing.")
endif()
# As Debian orders versions, 6.1.0~rc1 comes ahead of 6.1.0.
string(REPLACE "-" "~" TARN_PACKAGE_VERSION "${TARN_PACKAGE_VERSION}")
string(REPLACE "-" "~" host_first "${TARN_HOST_NUMBER}")
string(REGEX MATCH "^([0-9]+\\.[0-9]+)\\.([0-9]+)" host_release "${TARN_HOST_NUMBER}")
math(EXPR host_next "${CMAKE_MATCH_2} + 1")
set(host_next "${CMAKE_MATCH_1}.${host_next}~")
if(host_first MATCHES "~")
  # The release itself is another version. This is behind all of Debian's revisions of 6.1.0~rc1.
  set(host_next "${host_first}.~")
endif()

install(TARGETS tarn_memdb LIBRARY DESTINATION ${MODULES_DIR})
set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/tarn-memdb)
# Laid out as here, so that the links between the pages lead somewhere.
install(DIRECTORY docs DESTINATION ${doc_dir} FILES_MATCHING PATTERN "*.md")
install(FILES README.md DESTINATION ${doc_dir})
install(FILES CHANGELOG.md DESTINATION ${doc_dir} OPTIONAL)
install(FILES package/copyright DESTINATION ${doc_dir})
# Where the README's link to it leads; Debian has the text itself there.
file(CREATE_LINK ../../common-licenses/GPL-2 ${CMAKE_BINARY_DIR}/LICENSE SYMBOLIC)
install(FILES ${CMAKE_BINARY_DIR}/LICENSE DESTINATION ${doc_dir})
install(DIRECTORY package/site package/site-lua package/monitoring DESTINATION ${doc_dir}/examples)
install(DIRECTORY cluster DESTINATION ${doc_dir}/examples)

if(TARN_TOOLS)
  install(TARGETS tarn-memdb-check tarn-memdb-convert RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

if(TARN_TOOLS AND TARN_INSTALL)
  # The manual pages come from the tools' own --help.
  find_program(HELP2MAN help2man REQUIRED)
  set(helper ${CMAKE_SOURCE_DIR}/package/help-for-man)
  set(pages)
  foreach(tool tarn-memdb-check tarn-memdb-convert)
    set(page ${CMAKE_BINARY_DIR}/${tool}.1)
    set(additions ${CMAKE_SOURCE_DIR}/package/${tool}.h2m)
    add_custom_command(
      OUTPUT ${page}.gz
      COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C TOOL=$<TARGET_FILE:${tool}> ${HELP2MAN}
              --no-info --section=1 --include=${additions} --output=${page} ${helper}
      COMMAND gzip -9nf ${page}
      DEPENDS ${tool} ${additions} ${helper}
      VERBATIM)
    list(APPEND pages ${page}.gz)
  endforeach()

  string(TIMESTAMP TARN_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
  configure_file(package/changelog.in ${CMAKE_BINARY_DIR}/changelog @ONLY)
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/changelog.gz
                     COMMAND gzip -9nkf ${CMAKE_BINARY_DIR}/changelog
                     DEPENDS ${CMAKE_BINARY_DIR}/changelog)
  add_custom_target(tarn_install_files ALL DEPENDS ${pages} ${CMAKE_BINARY_DIR}/changelog.gz)
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES ${CMAKE_BINARY_DIR}/changelog.gz DESTINATION ${doc_dir})
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarn-memdb)
set(CPACK_PACKAGE_VERSION "${TARN_PACKAGE_VERSION}")
set(CPACK_PACKAGE_VENDOR "tarn_memdb")
set(CPACK_PACKAGE_CONTACT "${TARN_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "in-memory tables and port maps for Kamailio routing scripts")
set(CPACK_PACKAGE_DESCRIPTION
    "The module tarn_memdb, for Kamailio ${TARN_HOST_NUMBER} and no other: small named tables in
shared memory that routing scripts read several times per call, kept in text
files across restarts, and a manager of port numbers.
.
With tarn-memdb-check, which tells before a restart what a changed schema
would cost, tarn-memdb-convert, which brings the tables to it, and a site
to begin with.
.
${replies}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "kamailio (>= ${host_first}), kamailio (<< ${host_next})")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
include(CPack)

# Where `make install` puts things, and the Debian package.
include(GNUInstallDirs)

set(MODULES_DIR "${CMAKE_INSTALL_LIBDIR}/kamailio/modules" CACHE STRING
    "The host's module directory, absolute or below the prefix")

install(TARGETS tarn_memdb LIBRARY DESTINATION ${MODULES_DIR})
if(TARN_TOOLS)
  install(TARGETS tarn-memdb-check RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/tarn-memdb)
# Laid out as here, so that the links between the pages lead somewhere.
install(DIRECTORY docs DESTINATION ${doc_dir} FILES_MATCHING PATTERN "*.md")
install(FILES README.md DESTINATION ${doc_dir})
install(FILES demo/kamailio.cfg demo/schema.cfg demo/private_ranges.txt
        DESTINATION ${doc_dir}/examples)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarn-memdb)
set(CPACK_PACKAGE_VENDOR "tarn_memdb")
set(CPACK_PACKAGE_CONTACT "tarn_memdb founders <founders@tarn-memdb.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "in-memory tables and port maps for Kamailio routing scripts")
set(CPACK_PACKAGE_DESCRIPTION
    "The module tarn_memdb for ${TARN_HOST_VERSION_TEXT}: small named tables in shared memory that
 routing scripts read several times per call, kept in text files across restarts, and a manager of
 port numbers. With tarn-memdb-check, which tells before a restart what a changed schema would
 cost.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "kamailio (>= 6.0), kamailio (<< 6.1)")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
include(CPack)

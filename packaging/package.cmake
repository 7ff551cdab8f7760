# Installation and the Debian package. `cmake --install` puts kandb-meta and
# the three tools in ${prefix}/bin and the systemd unit in
# ${prefix}/lib/systemd/system; `cpack -G DEB` packs the same files for /usr.

option(KANDB_INSTALL_SYSTEMD_UNIT "Install the systemd unit of kandb-meta" ON)

if(KANDB_INSTALL_SYSTEMD_UNIT)
  # The unit names the binary by its installed path, which is known only when
  # installing: cpack installs for /usr, a plain install for its own prefix.
  install(CODE "
    set(KANDB_UNIT_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    configure_file(\"${CMAKE_CURRENT_LIST_DIR}/kandb-meta.service.in\"
                   \"${CMAKE_BINARY_DIR}/packaging/kandb-meta.service\" @ONLY)
  ")
  install(FILES ${CMAKE_BINARY_DIR}/packaging/kandb-meta.service
          DESTINATION lib/systemd/system)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kandb-meta)
set(CPACK_PACKAGE_VENDOR kandb)
set(CPACK_PACKAGE_CONTACT "kandb maintainers <maintainers@kandb.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "metadata and placement server of the kandb key-value database")
set(CPACK_PACKAGE_DESCRIPTION
    "kandb-meta hands out transaction timestamps and cluster-unique identifiers, keeps the
records of regions and stores, routes keys to regions and answers region heartbeats
with scheduling commands. Its state lives in an embedded log-structured engine.
The package holds the server, its systemd unit and the operator tools
kandb-meta-ctl, kandb-meta-inspect, kandb-meta-bench and kandb-meta-sim.")
# The files go where they would go for CMAKE_INSTALL_PREFIX=/usr, and the
# install scripts see that prefix (DESTDIR stages them), so the unit's
# ExecStart names /usr/bin/kandb-meta.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION database)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Library dependencies (libc6, libstdc++6, libgcc-s1) with the versions the
# binaries were linked against, from dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/postinst
    ${CMAKE_CURRENT_LIST_DIR}/prerm
    ${CMAKE_CURRENT_LIST_DIR}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)

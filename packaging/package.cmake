# Installation and the Debian packages. `cmake --install` puts the servers
# and the tools in ${prefix}/bin, the systemd units in
# ${prefix}/lib/systemd/system, kandb-meta-ha's defaults file in
# /etc/default (${prefix}/etc/default for a prefix other than /usr), and the
# Prometheus alert rules and the Grafana dashboard in
# ${prefix}/share/kandb-meta. `cpack -G DEB` packs the same files for /usr,
# as two packages from the install components:
#   server  kandb-meta: the embedded server, the tools, its unit, the alert
#           rules and the dashboard (install() calls that name no component
#           land here)
#   ha      kandb-meta-ha: the replicated server on etcd, its unit and its
#           defaults file; only this package depends on libcurl

option(KANDB_INSTALL_SYSTEMD_UNIT "Install the systemd units of kandb-meta and kandb-meta-ha" ON)

# Each unit names its binary (and kandb-meta-ha's its defaults file) by the
# installed path, which is known only when installing: cpack installs for
# /usr, a plain install for its own prefix. /usr keeps its configuration in
# /etc, as the filesystem hierarchy has it; any other prefix in its own etc.
function(kandb_install_unit name component)
  install(CODE "
    set(KANDB_UNIT_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
      set(KANDB_UNIT_DEFAULTDIR /etc/default)
    else()
      set(KANDB_UNIT_DEFAULTDIR \"\${CMAKE_INSTALL_PREFIX}/etc/default\")
    endif()
    configure_file(\"${CMAKE_CURRENT_LIST_DIR}/${name}.service.in\"
                   \"${CMAKE_BINARY_DIR}/packaging/${name}.service\" @ONLY)
  " COMPONENT ${component})
  install(FILES ${CMAKE_BINARY_DIR}/packaging/${name}.service
          DESTINATION lib/systemd/system COMPONENT ${component})
endfunction()

if(KANDB_INSTALL_SYSTEMD_UNIT)
  kandb_install_unit(kandb-meta server)
endif()

# What Prometheus and Grafana load (README, "Install and package").
install(FILES ${CMAKE_CURRENT_LIST_DIR}/kandb-meta-alerts.yml ${CMAKE_CURRENT_LIST_DIR}/kandb-meta-dashboard.json
        DESTINATION ${CMAKE_INSTALL_DATADIR}/kandb-meta COMPONENT server)

set(kandb_components server)
if(TARGET kandb-meta-ha)
  list(APPEND kandb_components ha)
  install(TARGETS kandb-meta-ha RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ha)
  if(KANDB_INSTALL_SYSTEMD_UNIT)
    kandb_install_unit(kandb-meta-ha ha)
  endif()
  # An absolute path: DESTDIR (cpack's staging) still applies to it.
  install(CODE "
    if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
      set(kandb_default_dir /etc/default)
    else()
      set(kandb_default_dir \"\${CMAKE_INSTALL_PREFIX}/etc/default\")
    endif()
    file(INSTALL \"${CMAKE_CURRENT_LIST_DIR}/kandb-meta-ha.default\"
         DESTINATION \"\${kandb_default_dir}\" RENAME kandb-meta-ha)
  " COMPONENT ha)
  # The package's conffiles: dpkg keeps an operator's edits of the defaults
  # file across upgrades and asks before replacing them.
  file(WRITE ${CMAKE_BINARY_DIR}/packaging/ha/conffiles "/etc/default/kandb-meta-ha\n")
endif()

# Maintainer scripts, one set per package: they name its unit.
foreach(component IN LISTS kandb_components)
  if(component STREQUAL "ha")
    set(KANDB_SERVICE kandb-meta-ha.service)
  else()
    set(KANDB_SERVICE kandb-meta.service)
  endif()
  foreach(script postinst prerm)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/${script}.in
                   ${CMAKE_BINARY_DIR}/packaging/${component}/${script} @ONLY)
  endforeach()
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kandb-meta)
set(CPACK_PACKAGE_VENDOR kandb)
set(CPACK_PACKAGE_CONTACT "kandb maintainers <maintainers@kandb.invalid>")
# No CPACK_PACKAGE_DESCRIPTION_SUMMARY: cpack would put that one line on top
# of both packages' descriptions; each description's first line is its
# package's own summary instead.
set(CPACK_DEBIAN_SERVER_DESCRIPTION
    "metadata and placement server of the kandb key-value database
kandb-meta hands out transaction timestamps and cluster-unique identifiers, keeps the
records of regions and stores, routes keys to regions and answers region heartbeats
with scheduling commands. Its state lives in an embedded log-structured engine.
The package holds the server, its systemd unit, the operator tools
kandb-meta-ctl, kandb-meta-inspect, kandb-meta-bench and kandb-meta-sim, and
Prometheus alert rules and a Grafana dashboard for both servers in
/usr/share/kandb-meta.")
set(CPACK_DEBIAN_HA_DESCRIPTION
    "replicated metadata and placement server of kandb, on etcd
kandb-meta-ha serves what kandb-meta serves, with its records in an etcd
cluster: several servers run on one cluster, one of them leads and serves, and
another takes over when the leader's lease runs out. The package holds the
server, its systemd unit and /etc/default/kandb-meta-ha, its command line.
The tools, the alert rules and the dashboard are in kandb-meta.")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${kandb_components})
set(CPACK_DEBIAN_SERVER_PACKAGE_NAME kandb-meta)
set(CPACK_DEBIAN_HA_PACKAGE_NAME kandb-meta-ha)
# The tools talk to it as well (kandb-meta-ctl takes the list of servers).
set(CPACK_DEBIAN_HA_PACKAGE_RECOMMENDS kandb-meta)
set(CPACK_DEBIAN_HA_PACKAGE_SUGGESTS etcd-server)
# The files go where they would go for CMAKE_INSTALL_PREFIX=/usr, and the
# install scripts see that prefix (DESTDIR stages them), so the units'
# ExecStart name /usr/bin.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION database)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Library dependencies with the versions the binaries were linked against,
# from dpkg-shlibdeps, package by package: libcurl only for kandb-meta-ha.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_EXTRA
    ${CMAKE_BINARY_DIR}/packaging/server/postinst
    ${CMAKE_BINARY_DIR}/packaging/server/prerm
    ${CMAKE_CURRENT_LIST_DIR}/postrm)
set(CPACK_DEBIAN_HA_PACKAGE_CONTROL_EXTRA
    ${CMAKE_BINARY_DIR}/packaging/ha/postinst
    ${CMAKE_BINARY_DIR}/packaging/ha/prerm
    ${CMAKE_CURRENT_LIST_DIR}/postrm
    ${CMAKE_BINARY_DIR}/packaging/ha/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)

# Debian packages of what is installed: kestrelexp (component "program"), kestrelexp-dev ("dev")
# and, where their libraries are there, kestrelexp-metrics ("metrics") and kestrelexp-kafka ("kafka").
# tools/package makes them. tests/package runs lintian, and installs, upgrades and purges them.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "The kestrelexp authors")
set(CPACK_PACKAGE_CONTACT "The kestrelexp authors <maintainers@kestrelexp.example>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_SET_DESTDIR ON)  # so that /etc is /etc
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL program dev)
foreach(plugin ${KESTREL_OWN_COMPONENTS})
  if(TARGET ${plugin})
    list(APPEND CPACK_COMPONENTS_ALL ${plugin})
  endif()
endforeach()
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME kestrelexp)
set(CPACK_COMPONENT_PROGRAM_DESCRIPTION "network flow probe with IPFIX and NetFlow export
Captures the frames of a network interface, aggregates them into flows in a
cache of fixed size, and sends every finished flow to collectors as IPFIX,
NetFlow v9 or NetFlow v5.

Inputs, process plugins, filters and exports are plugins; kestrelexp-dev has
the headers for more of them.")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SHLIBDEPS ON)
# netbase: names of services and protocols in rule files. systemd-sysusers: the unit's user, also on
# machines without systemd.
set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS
  "netbase, systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_RECOMMENDS python3)  # as_table.py

set(CPACK_DEBIAN_DEV_PACKAGE_NAME kestrelexp-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS pkg-config)
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "kestrelexp (>= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "headers for plugins of the kestrelexp flow probe
The plugin contract of kestrelexp as C11 and C++20 headers, a pkg-config file
that names the plugin directory, a guide for authors of plugins, and small
plugins with a Makefile to begin with, in /usr/share/kestrelexp/plugin.")

set(CPACK_DEBIAN_METRICS_PACKAGE_NAME kestrelexp-metrics)
set(CPACK_DEBIAN_METRICS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_METRICS_PACKAGE_DEPENDS "kestrelexp (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_METRICS_PACKAGE_SUGGESTS prometheus)
set(CPACK_COMPONENT_METRICS_DESCRIPTION "page and Prometheus metrics of the kestrelexp flow probe
A plugin of kestrelexp that shows the probe at work over HTTP: a page with
charts of packets, bits and flows, losses, exports and top talkers; metrics for
Prometheus; whether the probe lives and is ready. With alert rules and a guide.")

set(CPACK_DEBIAN_KAFKA_PACKAGE_NAME kestrelexp-kafka)
set(CPACK_DEBIAN_KAFKA_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_KAFKA_PACKAGE_DEPENDS "kestrelexp (>= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_KAFKA_DESCRIPTION "flows of the kestrelexp flow probe into Kafka
A plugin of kestrelexp that writes each flow into a topic of Apache Kafka, as
JSON or as the protocol buffers message of goflow2. Flows wait in a bounded
queue while brokers are away, and every one that is lost is counted.")

# Maintainer scripts, and the list of files that an operator may change.
set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)
list(TRANSFORM KESTREL_CONFFILES PREPEND / OUTPUT_VARIABLE conffiles)
list(JOIN conffiles "\n" conffiles)
file(WRITE ${PROJECT_BINARY_DIR}/debian/conffiles "${conffiles}\n")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/debian/conffiles ${debian}/postinst ${debian}/prerm ${debian}/postrm)
set(CPACK_DEBIAN_METRICS_PACKAGE_CONTROL_EXTRA ${debian}/metrics/postinst ${debian}/metrics/postrm)
set(CPACK_DEBIAN_KAFKA_PACKAGE_CONTROL_EXTRA ${debian}/kafka/postinst ${debian}/kafka/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

foreach(component ${CPACK_COMPONENTS_ALL})
  kestrel_folder_of_pages(${component} package)
  set(doc ${CMAKE_INSTALL_DATADIR}/doc/${package})
  # That of a package which has the work of others in it tells of them too.
  set(copyright ${debian}/copyright)
  if(EXISTS ${debian}/${package}.copyright)
    set(copyright ${debian}/${package}.copyright)
  endif()
  install(FILES ${copyright} DESTINATION ${doc} RENAME copyright COMPONENT ${component})
  kestrel_install_gzipped(${debian}/changelog ${doc} changelog.${package} ${component} changelog.gz)
  if(EXISTS ${debian}/${package}.lintian-overrides)
    install(FILES ${debian}/${package}.lintian-overrides
      DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME ${package}
      COMPONENT ${component})
  endif()
endforeach()

include(CPack)

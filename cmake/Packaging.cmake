# Install layout (GNUInstallDirs) and the Debian package (CPack's DEB generator): the daemon
# and its load tool side by side in sbin, the client in bin, the configuration, unit,
# logrotate file and manual pages at the places Debian expects. The unit, the configuration
# and the logrotate file name the package's paths (/usr/sbin, /etc, /var, /run), so an
# install outside the package should use the prefix /usr as well.
include(GNUInstallDirs)

install(TARGETS hostgauge hostgauge-vmstat DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS hostgauge-ctl DESTINATION ${CMAKE_INSTALL_BINDIR})
# The FULL forms, so that a /usr prefix still puts the configuration in /etc.
install(FILES ${PROJECT_SOURCE_DIR}/etc/hostgauge/hostspread.properties
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/hostgauge)
install(FILES ${PROJECT_SOURCE_DIR}/etc/logrotate.d/hostgauge
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/logrotate.d)
install(FILES ${PROJECT_SOURCE_DIR}/etc/systemd/hostgauge.service
        DESTINATION ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)

# Manual pages and the changelog (of a native package: no Debian revision) are installed
# compressed, as Debian wants them
# (gzip -n: no name or time stamp, so rebuilds give the same bytes).
set(HOSTGAUGE_MAN_PAGES hostgauge.8 hostgauge-ctl.1 hostgauge-vmstat.1 hostspread.properties.5)
set(HOSTGAUGE_COMPRESSED)
foreach(page ${HOSTGAUGE_MAN_PAGES})
    string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${page})
    set(gz ${CMAKE_BINARY_DIR}/man/${page}.gz)
    add_custom_command(OUTPUT ${gz}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
        COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/man/${page} > ${gz}
        DEPENDS ${PROJECT_SOURCE_DIR}/man/${page} VERBATIM)
    list(APPEND HOSTGAUGE_COMPRESSED ${gz})
    install(FILES ${gz} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
set(changelog_gz ${CMAKE_BINARY_DIR}/doc/changelog.gz)
add_custom_command(OUTPUT ${changelog_gz}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/doc
    COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/pkg/debian/changelog > ${changelog_gz}
    DEPENDS ${PROJECT_SOURCE_DIR}/pkg/debian/changelog VERBATIM)
add_custom_target(compressed_docs ALL DEPENDS ${HOSTGAUGE_COMPRESSED} ${changelog_gz})
install(FILES ${changelog_gz} ${PROJECT_SOURCE_DIR}/pkg/debian/copyright
        DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME hostgauge)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(HOSTGAUGE_MAINTAINER "hostgauge developers <hostgauge@example.org>" CACHE STRING
    "The package's Maintainer field; pkg/debian/changelog names the same")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${HOSTGAUGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "reports this server's load to the farm's load balancers")
set(CPACK_PACKAGE_DESCRIPTION
    "hostgauge runs on every application server of a server farm and tells the\n\
farm's load balancers how loaded the server is: XML subscriptions and status\n\
queries on a TCP control port, load datagrams over UDP, and an HAProxy\n\
agent-check port. It measures load by running a vmstat-style tool and rates\n\
the processor with a timed busy loop. This package runs it as the systemd\n\
service hostgauge, as the user hostgauge.")
# Shared-library dependencies come from dpkg-shlibdeps; adduser is what postinst uses.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/pkg/debian/conffiles ${PROJECT_SOURCE_DIR}/pkg/debian/postinst
    ${PROJECT_SOURCE_DIR}/pkg/debian/prerm ${PROJECT_SOURCE_DIR}/pkg/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)

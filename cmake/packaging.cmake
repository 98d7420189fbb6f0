# Installation layout and the Debian package (CPack DEB): `cmake --build --preset release --target
# package` writes context-sync_<version>-<release>_<arch>.deb into the build folder.
#
# The package holds the server program and ctxsync in /usr/bin, the project's shared libraries in
# /usr/lib/<multiarch> (the dynamic linker's own search path, so the installed programs carry no
# RPATH/RUNPATH at all), a systemd unit running the server as its own system user, the default
# settings file /etc/context_sync/server-settings.json (a conffile: dpkg keeps the operator's
# changes on upgrade) and maintainer scripts that create the user and the folders under
# /var/lib/context_sync and /var/log/context_sync, and take them away again on purge. The files
# that go into the package besides the programs live in packaging/debian/; docs/deployment.md
# says how to install, configure and upgrade.

# Debian puts libraries into the multiarch folder. GNUInstallDirs (which Qt's project set-up has
# included already) only does so for the prefix /usr, while the package's prefix is set by CPack,
# so the folder is named here.
include(GNUInstallDirs)
if(CMAKE_LIBRARY_ARCHITECTURE)
    set(CONTEXT_SYNC_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}")
else()
    set(CONTEXT_SYNC_INSTALL_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
endif()

# The libraries are installed where the dynamic linker looks anyway: the build tree's RPATH is
# dropped on installation and none is put in its place.
set(CMAKE_SKIP_INSTALL_RPATH ON)

# The names the unit, the settings file and the maintainer scripts share.
set(CONTEXT_SYNC_PACKAGE_NAME "context-sync")
set(CONTEXT_SYNC_SERVICE_USER "context-sync")
set(CONTEXT_SYNC_SERVICE_NAME "context-sync-server")
set(CONTEXT_SYNC_ETC_DIR "/etc/context_sync")
set(CONTEXT_SYNC_SETTINGS_FILE "${CONTEXT_SYNC_ETC_DIR}/server-settings.json")
set(CONTEXT_SYNC_VAR_DIR "/var/lib/context_sync")
set(CONTEXT_SYNC_ROOT_DIR "${CONTEXT_SYNC_VAR_DIR}/context_root")
set(CONTEXT_SYNC_STATE_DIR "${CONTEXT_SYNC_VAR_DIR}/state")
set(CONTEXT_SYNC_LOG_DIR "/var/log/context_sync")
set(CONTEXT_SYNC_PACKAGE_PREFIX "/usr")
set(CONTEXT_SYNC_SERVER_PROGRAM
    "${CONTEXT_SYNC_PACKAGE_PREFIX}/${CMAKE_INSTALL_BINDIR}/context_sync_server")
# Debian 12's folder for the units of packages (systemd.pc's systemdsystemunitdir).
set(CONTEXT_SYNC_UNIT_DIR "/lib/systemd/system")

# install() rules of the programs and libraries; every target installs into the one component the
# package is made of.
function(context_sync_install_runtime)
    install(TARGETS ${ARGN}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
        LIBRARY DESTINATION ${CONTEXT_SYNC_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_SKIP)
endfunction()

# Files made from the templates of packaging/debian/ with the names above.
set(_debian_in "${PROJECT_SOURCE_DIR}/packaging/debian")
set(_debian_out "${PROJECT_BINARY_DIR}/packaging/debian")
foreach(_file IN ITEMS postinst prerm postrm conffiles)
    configure_file("${_debian_in}/${_file}.in" "${_debian_out}/${_file}" @ONLY
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                         WORLD_READ WORLD_EXECUTE)
endforeach()
file(CHMOD "${_debian_out}/conffiles" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
configure_file("${_debian_in}/context-sync-server.service.in"
    "${_debian_out}/${CONTEXT_SYNC_SERVICE_NAME}.service" @ONLY)
configure_file("${_debian_in}/server-settings.json.in" "${_debian_out}/server-settings.json" @ONLY)

install(FILES "${_debian_out}/${CONTEXT_SYNC_SERVICE_NAME}.service"
    DESTINATION "${CONTEXT_SYNC_UNIT_DIR}" COMPONENT runtime)
install(FILES "${_debian_out}/server-settings.json"
    DESTINATION "${CONTEXT_SYNC_ETC_DIR}" COMPONENT runtime)
install(FILES "${PROJECT_SOURCE_DIR}/docs/deployment.md" "${PROJECT_SOURCE_DIR}/docs/protocol.md"
    DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/${CONTEXT_SYNC_PACKAGE_NAME}" COMPONENT runtime)

# The Debian architecture of the programs built (armhf for the cross build), not of this machine.
find_program(CONTEXT_SYNC_DPKG_ARCHITECTURE dpkg-architecture)
set(CONTEXT_SYNC_DEB_ARCH "")
if(CONTEXT_SYNC_DPKG_ARCHITECTURE)
    set(_arch_args -qDEB_HOST_ARCH)
    if(CMAKE_CROSSCOMPILING AND CMAKE_LIBRARY_ARCHITECTURE)
        list(PREPEND _arch_args -t ${CMAKE_LIBRARY_ARCHITECTURE})
    endif()
    execute_process(COMMAND ${CONTEXT_SYNC_DPKG_ARCHITECTURE} ${_arch_args}
        OUTPUT_VARIABLE CONTEXT_SYNC_DEB_ARCH OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
set(CONTEXT_SYNC_DEB_VERSION "${PROJECT_VERSION}-1")
# Where `--target package` leaves the package; the deployment test installs this very file.
set(CONTEXT_SYNC_PACKAGE_FILE
    "${PROJECT_BINARY_DIR}/${CONTEXT_SYNC_PACKAGE_NAME}_${CONTEXT_SYNC_DEB_VERSION}_${CONTEXT_SYNC_DEB_ARCH}.deb")

set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME "${CONTEXT_SYNC_PACKAGE_NAME}")
set(CPACK_PACKAGE_VENDOR "libcontext_sync developers")
set(CPACK_PACKAGE_CONTACT "libcontext_sync developers <context-sync@localhost>")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "keeps a context root in step with its clients over MQTT (server, ctxsync, libraries)")
set(CPACK_PACKAGE_DESCRIPTION
    "context_sync_server keeps one directory tree, the context root, in step with the copies its
clients hold, over an MQTT broker. The package holds the server with its systemd unit and
system user, the command-line client ctxsync and the shared libraries libcontext_sync and
liborvane_platform.")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CONTEXT_SYNC_PACKAGE_PREFIX}")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
if(CONTEXT_SYNC_DEB_ARCH)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "${CONTEXT_SYNC_DEB_ARCH}")
endif()
set(CPACK_DEBIAN_PACKAGE_SECTION "net")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
# Programs and libraries in one package. A native build takes the libraries' dependencies from
# dpkg-shlibdeps, which reads this machine's package database. A cross build has no database of
# the target's packages (its sysroot is unpacked, not installed), so it names the packages of
# Debian 12 that hold what the programs link; `dpkg -I` of a native package shows the same list.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# useradd/groupadd (passwd) in postinst; the broker may run on another machine, so mosquitto is
# only recommended.
# package_install_test checks that the native package depends on exactly these packages.
set(CONTEXT_SYNC_CROSS_DEPENDS "passwd, libc6 (>= 2.34), libgcc-s1 (>= 3.5), \
libmosquitto1 (>= 1.6), libqt6core6 (>= 6.4.0), libqt6network6 (>= 6.1.2), libspdlog1.10-fmt9, \
libstdc++6 (>= 12), zlib1g (>= 1:1.1.4)")
if(CMAKE_CROSSCOMPILING)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "${CONTEXT_SYNC_CROSS_DEPENDS}")
else()
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "passwd")
endif()
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "mosquitto")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "mosquitto-clients")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    "${_debian_out}/conffiles" "${_debian_out}/postinst" "${_debian_out}/prerm"
    "${_debian_out}/postrm")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)

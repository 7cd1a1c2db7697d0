# Installation and the Debian package (CPack, DEB generator). scripts/package.sh builds, writes
# the generated files (man pages, changelog) into ${DH_GENERATED_DIR} and runs cpack; see
# docs/development.md.
set(DH_GENERATED_DIR "${CMAKE_BINARY_DIR}/generated" CACHE PATH
    "Man pages and the changelog made by scripts/package.sh")

install(TARGETS sysrepo-device-handler RUNTIME DESTINATION sbin)
install(TARGETS dhctl RUNTIME DESTINATION bin)
install(FILES packaging/sysrepo-device-handler.service DESTINATION /lib/systemd/system)
install(FILES packaging/sysrepo-device-handler.default DESTINATION /etc/default
        RENAME sysrepo-device-handler)
install(FILES client/dhctl-completion.bash DESTINATION share/bash-completion/completions
        RENAME dhctl)
# Generated outside the build (the daemon's help is read inside the simulated device), so a
# plain `cmake --install` without them still works; scripts/package-test.sh checks they are in
# the package.
install(FILES ${DH_GENERATED_DIR}/dhctl.1.gz DESTINATION share/man/man1 OPTIONAL)
install(FILES ${DH_GENERATED_DIR}/sysrepo-device-handler.8.gz DESTINATION share/man/man8 OPTIONAL)
install(FILES ${DH_GENERATED_DIR}/changelog.gz DESTINATION share/doc/sysrepo-device-handler
        OPTIONAL)

# Relocations read-only and resolved at start (lintian's hardening-no-bindnow); only the link of
# the two programs changes.
target_link_options(sysrepo-device-handler PRIVATE "LINKER:-z,relro,-z,now")
target_link_options(dhctl PRIVATE "LINKER:-z,relro,-z,now")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME sysrepo-device-handler)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Device handler developers <dh-dev@lists.example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "device-handler daemon of an optical transport device, and its client")
set(CPACK_PACKAGE_DESCRIPTION
    "The daemon publishes the device's configuration, state and commands as
a tree of named values over newline-delimited JSON-RPC (Unix socket, TCP,
IPv6), and carries them out against the device's own services (YANG
datastore, nftables, chrony, lldpd, klish, RAUC, redis, ethtool), which it
reaches through nsenter in the host's namespaces.
.
dhctl, its command-line client, reads, writes, runs and watches the values.
.
The systemd unit is installed disabled: the daemon acts on the machine it
runs on.")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# nsenter comes from util-linux, which is essential (never named as a dependency). The factory
# reset stops and restarts redis and kills it with killall in the daemon's own namespaces; the
# other tools run in the host's namespaces, which on a device are the host's, not this system's.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "psmisc, redis-server")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "nftables, chrony, lldpd, ethtool, rauc")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/conffiles
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/postinst
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/prerm
    ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)

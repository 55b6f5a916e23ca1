# What `cmake --install build [--prefix P]` puts in place: the daemon and the
# command-line client, the client library with its header and pkg-config
# file, the systemd unit, the kernel setting for the queue's size, the
# directories and key file the daemon expects, and the sample configuration.
include(GNUInstallDirs)

install(TARGETS kestrin kestrin-log kestrin-seqcheck RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS QrtShared LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES src/qrt/QrtDiag.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kestrin)

# The pkg-config file finds the prefix from its own place, so that a tree
# installed with --prefix or DESTDIR works where it lands.
string(REGEX REPLACE "[^/]+" ".." KESTRIN_PC_TO_PREFIX "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
configure_file(etc/qrtshared.pc.in ${CMAKE_BINARY_DIR}/etc/qrtshared.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/etc/qrtshared.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The unit names the daemon where it is installed.
set(KESTRIN_DAEMON_PATH ${CMAKE_INSTALL_FULL_BINDIR}/kestrin)
configure_file(etc/kestrin.service.in ${CMAKE_BINARY_DIR}/etc/kestrin.service @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/etc/kestrin.service DESTINATION lib/systemd/system)

# The sample configuration lives in the package's data directory; the
# tmpfiles.d entry copies it into /kv/etc when no configuration is there
# yet, so an operator's own is never overwritten.
set(KESTRIN_SAMPLE_DIR ${CMAKE_INSTALL_FULL_DATADIR}/kestrin)
install(FILES etc/Kestrin.conf etc/KestrinTaxonomy DESTINATION ${CMAKE_INSTALL_DATADIR}/kestrin)
configure_file(etc/kestrin-tmpfiles.conf.in ${CMAKE_BINARY_DIR}/etc/kestrin-tmpfiles.conf @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/etc/kestrin-tmpfiles.conf
        DESTINATION lib/tmpfiles.d RENAME kestrin.conf)
install(FILES etc/kestrin-sysctl.conf DESTINATION lib/sysctl.d RENAME 60-kestrin.conf)

# The manual pages (scripts/check-man-pages.sh keeps them in step with the
# programs' usage texts, the keys the daemon reads and the library's API).
install(FILES man/kestrin-log.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES man/libqrtshared.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
install(FILES man/Kestrin.conf.5 man/KestrinTaxonomy.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES man/kestrin.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)

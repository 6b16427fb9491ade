# Installing and packaging the manager.
#
# `cmake --install <build> --prefix DIR` gives a self-contained tree that can live anywhere:
#
#   DIR/bin/hangar                        the executable
#   DIR/share/hangar/installation.json    {"id": "Hangar", "version": ..., "managed_by": ...}
#   DIR/share/hangar/LICENSE, README.md
#
# The executable finds the marker file relative to itself (SelfInstallation), which is how it
# knows that it runs from an installed tree, which version that tree holds and whether it may
# replace the tree when it updates itself. Nothing else may be installed beside it: the
# self-update swaps the whole folder.
#
# Targets:
#   hangar-package   build/packages/hangar-<version>-linux-x86_64.tar.gz: the tree above under a
#                    top folder "hangar-<version>", stripped; the package that the manager's own
#                    feed entries ("id" = "Hangar", "strip_directories" = 1) point to.
#   package          (CPack) a .deb that installs under /usr and depends on Debian's Qt, OpenSSL,
#                    liblzma and qtkeychain packages. An installation under /usr belongs to the
#                    system package manager: its marker says so and the manager never replaces it.
#
# The version is the one setting HANGAR_BUILD_VERSION.

set(HANGAR_PACKAGE_NAME "hangar-${HANGAR_BUILD_VERSION}-linux-x86_64")
set(HANGAR_PACKAGE_DIR ${CMAKE_BINARY_DIR}/packages)

install(TARGETS hangar RUNTIME DESTINATION bin COMPONENT hangar)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/README.md
        DESTINATION share/hangar COMPONENT hangar)
# Written at install time, because only then is the prefix known: a tree under /usr (the .deb)
# is the system package manager's.
install(CODE "
  set(_managed_by \"\")
  if(CMAKE_INSTALL_PREFIX MATCHES \"^/usr(/|$)\")
    set(_managed_by \"system package manager\")
  endif()
  file(WRITE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/share/hangar/installation.json\"
    \"{\\n  \\\"id\\\": \\\"Hangar\\\",\\n  \\\"version\\\": \\\"${HANGAR_BUILD_VERSION}\\\",\\n  \\\"managed_by\\\": \\\"\${_managed_by}\\\"\\n}\\n\")
" COMPONENT hangar)

add_custom_target(hangar-package
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${HANGAR_PACKAGE_DIR}/stage
  COMMAND ${CMAKE_COMMAND} --install ${CMAKE_BINARY_DIR} --component hangar --strip
          --prefix ${HANGAR_PACKAGE_DIR}/stage/hangar-${HANGAR_BUILD_VERSION}
  COMMAND ${CMAKE_COMMAND} -E chdir ${HANGAR_PACKAGE_DIR}/stage
          tar -czf ${HANGAR_PACKAGE_DIR}/${HANGAR_PACKAGE_NAME}.tar.gz hangar-${HANGAR_BUILD_VERSION}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${HANGAR_PACKAGE_DIR}/stage
  BYPRODUCTS ${HANGAR_PACKAGE_DIR}/${HANGAR_PACKAGE_NAME}.tar.gz
  COMMENT "Packing ${HANGAR_PACKAGE_NAME}.tar.gz"
  VERBATIM)
add_dependencies(hangar-package hangar)

set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME "hangar")
set(CPACK_PACKAGE_VENDOR "Vantrel")
set(CPACK_PACKAGE_VERSION "${HANGAR_BUILD_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Desktop manager for the Vantrel developer tools")
set(CPACK_PACKAGE_CONTACT "Vantrel <hangar@vantrel.com>")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_PACKAGE_DIRECTORY ${HANGAR_PACKAGE_DIR})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL OFF)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "amd64")
set(CPACK_DEBIAN_PACKAGE_SECTION "devel")
set(_hangar_deb_depends libqt5core5a libqt5gui5 libqt5widgets5 libqt5network5 libqt5xml5 libqt5dbus5
    libqt5websockets5 libssl3 liblzma5 libqt5keychain1 tar gzip unzip)
if(TARGET Qt5::WebEngineWidgets)
  list(APPEND _hangar_deb_depends libqt5webenginewidgets5 libqt5webchannel5)
endif()
list(JOIN _hangar_deb_depends ", " CPACK_DEBIAN_PACKAGE_DEPENDS)
include(CPack)

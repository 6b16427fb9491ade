# Trust anchor and built-in release feed of hangar_feed, compiled in as the Qt
# resources ":/feed-ca.crt" and ":/release.feed.xz.signed".
#
# A distributor passes its own public certificate and a release feed signed for
# it (HANGAR_FEED_CA_CERT, HANGAR_RELEASE_FEED). Without them the build makes a
# development CA with hangar-feed inside the build tree (its private keys never
# leave it) and signs HANGAR_RELEASE_FEED_JSON with it. The demo feed and the
# tests sign with that same development CA.
if(NOT TARGET hangar_feed)
  return()
endif()
get_target_property(_hangar_feed_type hangar_feed TYPE)
if(_hangar_feed_type STREQUAL "INTERFACE_LIBRARY")
  return()
endif()

set(HANGAR_FEED_RESOURCE_DIR ${CMAKE_BINARY_DIR}/feed-resources)
set(HANGAR_FEED_DEV_CA_DIR ${CMAKE_BINARY_DIR}/feed-dev-ca)
file(MAKE_DIRECTORY ${HANGAR_FEED_RESOURCE_DIR})

if(HANGAR_FEED_CA_CERT OR HANGAR_RELEASE_FEED)
  if(NOT HANGAR_FEED_CA_CERT OR NOT HANGAR_RELEASE_FEED)
    message(FATAL_ERROR "HANGAR_FEED_CA_CERT and HANGAR_RELEASE_FEED go together: "
                        "the built-in release feed must verify against the compiled-in certificate")
  endif()
  get_filename_component(_feed_ca ${HANGAR_FEED_CA_CERT} ABSOLUTE)
  get_filename_component(_release_feed ${HANGAR_RELEASE_FEED} ABSOLUTE)
  message(STATUS "Feed trust: ${_feed_ca}, release feed: ${_release_feed}")
else()
  set(_feed_ca ${HANGAR_FEED_DEV_CA_DIR}/ca.crt)
  set(_release_feed ${HANGAR_FEED_RESOURCE_DIR}/release.feed.xz.signed)
  message(STATUS "Feed trust: development CA in ${HANGAR_FEED_DEV_CA_DIR}")
  # --keep-existing: rebuilding the tool must not replace the CA that signed
  # feeds already on disk (the demo feed, a running test server).
  add_custom_command(
    OUTPUT ${HANGAR_FEED_DEV_CA_DIR}/ca.crt ${HANGAR_FEED_DEV_CA_DIR}/signer.crt
           ${HANGAR_FEED_DEV_CA_DIR}/signer.key
    COMMAND hangar-feed make-ca --keep-existing --out ${HANGAR_FEED_DEV_CA_DIR}
            --cn "Hangar development feed CA"
    DEPENDS hangar-feed
    COMMENT "Development feed CA (private keys stay in the build tree)"
    VERBATIM)
  add_custom_command(
    OUTPUT ${_release_feed}
    COMMAND hangar-feed sign --cert ${HANGAR_FEED_DEV_CA_DIR}/signer.crt
            --key ${HANGAR_FEED_DEV_CA_DIR}/signer.key ${HANGAR_RELEASE_FEED_JSON} ${_release_feed}
    DEPENDS hangar-feed ${HANGAR_FEED_DEV_CA_DIR}/signer.crt ${HANGAR_FEED_DEV_CA_DIR}/signer.key
            ${HANGAR_RELEASE_FEED_JSON}
    COMMENT "Signing the built-in release feed"
    VERBATIM)
endif()

set(_feed_qrc ${HANGAR_FEED_RESOURCE_DIR}/feed_resources.qrc)
file(CONFIGURE OUTPUT ${_feed_qrc} CONTENT "<!DOCTYPE RCC>
<RCC version=\"1.0\">
  <qresource prefix=\"/\">
    <file alias=\"feed-ca.crt\">${_feed_ca}</file>
    <file alias=\"release.feed.xz.signed\">${_release_feed}</file>
  </qresource>
</RCC>
")
set(_feed_qrc_cpp ${HANGAR_FEED_RESOURCE_DIR}/qrc_feed_resources.cpp)
add_custom_command(
  OUTPUT ${_feed_qrc_cpp}
  COMMAND Qt5::rcc --name feed_resources --output ${_feed_qrc_cpp} ${_feed_qrc}
  DEPENDS ${_feed_qrc} ${_feed_ca} ${_release_feed}
  VERBATIM)
set_source_files_properties(${_feed_qrc_cpp} PROPERTIES GENERATED TRUE SKIP_AUTOGEN TRUE)
target_sources(hangar_feed PRIVATE ${_feed_qrc_cpp})

# The three root feeds are built from these host names (see RemoteApplications).
target_compile_definitions(hangar_feed PRIVATE
  HANGAR_FEED_INTERNAL_HOST="${HANGAR_FEED_INTERNAL_HOST}"
  HANGAR_FEED_PUBLIC_HOST="${HANGAR_FEED_PUBLIC_HOST}")

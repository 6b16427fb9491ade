# The self-update tests and benchmark need a second, newer manager: the same sources configured
# with a higher version into a build folder beside this one, packed like a release. It trusts this
# build's feed CA, and only its `hangar-package` target is built. The folder has the same depth as
# this one, so that ccache (the source folder as base, the build folder left out of the hash)
# shares every object file that does not read the version.
set(HANGAR_NEWER_VERSION "${HANGAR_BUILD_VERSION}.1" CACHE STRING "Version of the newer manager the self-update tests build")
set(_newer_dir ${CMAKE_BINARY_DIR}-newer)
set(_newer_package ${_newer_dir}/packages/hangar-${HANGAR_NEWER_VERSION}-linux-x86_64.tar.gz)
if(HANGAR_FEED_CA_CERT)
  set(_newer_trust -DHANGAR_FEED_CA_CERT=${HANGAR_FEED_CA_CERT} -DHANGAR_RELEASE_FEED=${HANGAR_RELEASE_FEED})
else()
  set(_newer_trust -DHANGAR_FEED_CA_CERT=${CMAKE_BINARY_DIR}/feed-dev-ca/ca.crt
                   -DHANGAR_RELEASE_FEED=${CMAKE_BINARY_DIR}/feed-resources/release.feed.xz.signed)
endif()
add_custom_target(hangar-newer-package
  COMMAND ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} CCACHE_NOHASHDIR=1
          ${CMAKE_COMMAND} -S ${PROJECT_SOURCE_DIR} -B ${_newer_dir} -G ${CMAKE_GENERATOR}
          -DCMAKE_BUILD_TYPE=${CMAKE_BUILD_TYPE} -DHANGAR_BUILD_VERSION=${HANGAR_NEWER_VERSION}
          -DHANGAR_BUILD_TESTS=OFF -DHANGAR_BUILD_BENCH=OFF ${_newer_trust}
  COMMAND ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} CCACHE_NOHASHDIR=1
          ${CMAKE_COMMAND} --build ${_newer_dir} --target hangar-package
  BYPRODUCTS ${_newer_package}
  COMMENT "Building the newer manager ${HANGAR_NEWER_VERSION} for the self-update tests"
  VERBATIM)
add_dependencies(hangar-newer-package hangar_feed)

# What the fixtures of those tests need to know.
set(HANGAR_UPDATE_FIXTURE_DEFINITIONS
  HANGAR_CMAKE="${CMAKE_COMMAND}"
  HANGAR_VERSION="${HANGAR_BUILD_VERSION}"
  HANGAR_NEWER_VERSION="${HANGAR_NEWER_VERSION}"
  HANGAR_NEWER_PACKAGE="${_newer_package}")


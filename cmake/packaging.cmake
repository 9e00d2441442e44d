# Debian 12 packages (cpack -G DEB): librxcloudmaterial<major> with the library and the files it
# reads at run time, librxcloudmaterial-dev with the headers and the CMake package, and, for hosts
# that have no libraries of their own, rxhostplatform with the reference host libraries.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME rxcloudmaterial)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "rxcloudmaterial developers <developers@rxcloudmaterial.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Cloud material panel for desktop media players")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

set(CPACK_COMPONENTS_ALL Runtime Development)
if(RXCM_REFERENCE_PLATFORM)
  list(APPEND CPACK_COMPONENTS_ALL Platform)
endif()

# Run-time dependencies come from dpkg-shlibdeps; the host's libraries are the host's to ship.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/${CMAKE_INSTALL_LIBDIR})

set(rxcm_runtime_package librxcloudmaterial${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${rxcm_runtime_package})
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Cloud material panel for desktop media players (library)")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME librxcloudmaterial-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${rxcm_runtime_package} (= ${PROJECT_VERSION}), qtbase5-dev (>= 5.15)")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
  "Cloud material panel for desktop media players (headers and CMake package)")

set(CPACK_DEBIAN_PLATFORM_PACKAGE_NAME rxhostplatform)
set(CPACK_DEBIAN_PLATFORM_PACKAGE_DEPENDS "qtbase5-dev (>= 5.15), libspdlog-dev, libfmt-dev")
set(CPACK_DEBIAN_PLATFORM_DESCRIPTION
  "Reference builds of the host libraries the cloud material panel links (pwspdlog, hvtheme, rxtranslate, IRXRuntime)")

include(CPack)

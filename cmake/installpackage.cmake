# rxcm_install_package(<name> <config template> <component> [NAMESPACE <ns>])
# Installs the export set <name>Targets as the CMake package <name>: the targets file, a config
# file made from the template and a version file that accepts the same major version.
function(rxcm_install_package name template component)
  cmake_parse_arguments(P "" "NAMESPACE" "" ${ARGN})
  set(dir ${CMAKE_INSTALL_LIBDIR}/cmake/${name})
  set(namespace)
  if(P_NAMESPACE)
    set(namespace NAMESPACE ${P_NAMESPACE})
  endif()
  install(EXPORT ${name}Targets ${namespace} DESTINATION ${dir} COMPONENT ${component})
  configure_package_config_file(${template} ${PROJECT_BINARY_DIR}/${name}Config.cmake INSTALL_DESTINATION ${dir})
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/${name}ConfigVersion.cmake COMPATIBILITY SameMajorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/${name}Config.cmake ${PROJECT_BINARY_DIR}/${name}ConfigVersion.cmake
          DESTINATION ${dir} COMPONENT ${component})
endfunction()

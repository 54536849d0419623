# Where what ships lies, in an installation and, alike, in the build tree; and the component
# that it belongs to: plugin, dev, devkit, host or doc.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The libraries' folder is private: they are opened by their paths, and no loader searches it.
set(PLUGIN_DIR ${CMAKE_INSTALL_LIBDIR}/corvane)
set(DEVKIT_DIR ${PLUGIN_DIR}/devkit)
set(HEADERS_DIR ${CMAKE_INSTALL_INCLUDEDIR}/corvane)
# Programs look there by a path from their own folder, so that an installation can be moved.
file(RELATIVE_PATH LIBRARIES_FROM_PROGRAMS
  ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR}/corvane)
set(BUILT_PROGRAMS ${PROJECT_BINARY_DIR}/bin)
cmake_path(SET BUILT_LIBRARIES NORMALIZE ${BUILT_PROGRAMS}/${LIBRARIES_FROM_PROGRAMS})

# ---- What is built.

set_target_properties(Corvane_plugin PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY ${BUILT_LIBRARIES}
  EXPORT_NAME plugin)
install(TARGETS Corvane_plugin EXPORT CorvanePlugin
  LIBRARY DESTINATION ${PLUGIN_DIR} COMPONENT plugin)
install(TARGETS corvane_headers EXPORT CorvaneHeaders
  FILE_SET HEADERS DESTINATION ${HEADERS_DIR} COMPONENT dev)

if(CORVANE_DEVKIT)
  set_target_properties(CorvaneParamsModule SoftModuleaven PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${BUILT_LIBRARIES}/devkit)
  install(TARGETS CorvaneParamsModule SoftModuleaven
    LIBRARY DESTINATION ${DEVKIT_DIR} COMPONENT devkit)
  set_target_properties(corvane-host corvane-ke-peer PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${BUILT_PROGRAMS})
  install(TARGETS corvane-host corvane-ke-peer RUNTIME COMPONENT host)
  target_compile_definitions(corvane_host PRIVATE
    CORVANE_LIBRARIES_FROM_PROGRAMS="${LIBRARIES_FROM_PROGRAMS}")
endif()

# ---- For those who build against it: find_package(Corvane) and pkg-config.

set(CMAKE_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Corvane)
foreach(part Headers Plugin)
  install(EXPORT Corvane${part} NAMESPACE Corvane:: DESTINATION ${CMAKE_CONFIG_DIR} COMPONENT dev)
endforeach()
configure_package_config_file(cmake/CorvaneConfig.cmake.in
  ${PROJECT_BINARY_DIR}/cmake/CorvaneConfig.cmake
  INSTALL_DESTINATION ${CMAKE_CONFIG_DIR} PATH_VARS PLUGIN_DIR DEVKIT_DIR
  NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/CorvaneConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/cmake/CorvaneConfig.cmake
  ${PROJECT_BINARY_DIR}/cmake/CorvaneConfigVersion.cmake
  DESTINATION ${CMAKE_CONFIG_DIR} COMPONENT dev)

set(PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(PREFIX_FROM_PKGCONFIG /)
cmake_path(RELATIVE_PATH PREFIX_FROM_PKGCONFIG BASE_DIRECTORY /${PKGCONFIG_DIR})
configure_file(cmake/corvane.pc.in ${PROJECT_BINARY_DIR}/cmake/corvane.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/cmake/corvane.pc DESTINATION ${PKGCONFIG_DIR} COMPONENT dev)

# ---- Documents, in the folders that their links name.

install(FILES README.md CHANGELOG.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc
  PATTERN man EXCLUDE PATTERN reference EXCLUDE PATTERN build EXCLUDE)
# The pages of the target `reference`, where they have been made.
add_subdirectory(docs/reference)
install(DIRECTORY ${PROJECT_BINARY_DIR}/${CMAKE_INSTALL_DOCDIR}/reference
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc OPTIONAL)
install(DIRECTORY packaging/haproxy packaging/kubernetes packaging/nginx packaging/prometheus
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/packaging COMPONENT doc)
foreach(folder engine host peer)
  install(FILES devkit/${folder}/README.md
    DESTINATION ${CMAKE_INSTALL_DOCDIR}/devkit/${folder} COMPONENT doc)
endforeach()
install(FILES devkit/walk.jsonl DESTINATION ${CMAKE_INSTALL_DOCDIR}/devkit COMPONENT doc)
install(FILES devkit/engine/key_exchange/KEY_EXCHANGE.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/devkit/engine/key_exchange COMPONENT doc)

# ---- Manual pages, which carry the version; they are read before an installation by
# `man -M build/release/share/man corvane-host`.

set(MAN_DATE "November 23, 2026")  # when what they say was last changed
set(BUILT_MAN ${PROJECT_BINARY_DIR}/share/man)
# corvane_page(NAME SECTION COMPONENT)
function(corvane_page name section component)
  set(page ${BUILT_MAN}/man${section}/${name}.${section})
  configure_file(docs/man/${name}.${section}.in ${page} @ONLY)
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endfunction()
corvane_page(corvane_plugin 3 dev)
if(CORVANE_DEVKIT)
  corvane_page(corvane-host 1 host)
  corvane_page(corvane-ke-peer 1 host)
endif()

# ---- Completion of command lines, where each shell looks for it. Debian's zsh leaves
# share/zsh/site-functions to /usr/local; its packages use vendor-completions.

if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(zsh_folder vendor-completions)
else()
  set(zsh_folder site-functions)
endif()
# corvane_completion(SHELL FOLDER FILE)
function(corvane_completion shell folder file)
  install(FILES devkit/host/commands/completion.${shell} RENAME ${file}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/${folder} COMPONENT host)
endfunction()
if(CORVANE_DEVKIT)
  corvane_completion(bash bash-completion/completions corvane-host)
  corvane_completion(zsh zsh/${zsh_folder} _corvane-host)
  corvane_completion(fish fish/vendor_completions.d corvane-host.fish)
endif()

add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} -D BUILD=${PROJECT_BINARY_DIR}
    -P ${PROJECT_SOURCE_DIR}/cmake/uninstall.cmake
  VERBATIM)

# cmake --install BUILD [--prefix FOLDER]: the programs, the module, the headers of both sides of its contract, and the
# man pages when scdoc was there to make them.
include(CMakePackageConfigHelpers)

install(TARGETS pimctl mvpn-lab mvpn-traffic mvpn-contract-test RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS pimhostd mdt-reflector mvpn-forwarder RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
# A plug-in that a host loads by path and nobody links, so it stays out of the loader's folders. pimhostd knows the way
# from its own place, and no program has a library path in its file.
install(TARGETS mvpn LIBRARY DESTINATION ${MVPN_MODULE_FOLDER})

set(contract_folder ${CMAKE_INSTALL_INCLUDEDIR}/libmvpn)
file(GLOB contract_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/platform/*.h)
install(FILES ${contract_headers} DESTINATION ${contract_folder}/platform)
install(FILES ${PROJECT_SOURCE_DIR}/conformance/driver.h DESTINATION ${contract_folder}/conformance)
install(FILES ${PROJECT_SOURCE_DIR}/routing/pim/mvpn/mvpn.h DESTINATION ${contract_folder}/routing/pim/mvpn)

# For those who build a host of their own: pkg-config --cflags libmvpn, and find_package(libmvpn).
configure_file(${CMAKE_CURRENT_LIST_DIR}/libmvpn.pc.in ${PROJECT_BINARY_DIR}/libmvpn.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libmvpn.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(module_file ${MVPN_MODULE_FOLDER}/libmvpn.so)
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/libmvpn)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/libmvpnConfig.cmake.in
  ${PROJECT_BINARY_DIR}/libmvpnConfig.cmake
  INSTALL_DESTINATION ${package_folder} PATH_VARS contract_folder module_file)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/libmvpnConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/libmvpnConfig.cmake ${PROJECT_BINARY_DIR}/libmvpnConfigVersion.cmake
  DESTINATION ${package_folder})

install(FILES ${PROJECT_SOURCE_DIR}/host/snmp/LIBMVPN-MIB.txt DESTINATION ${CMAKE_INSTALL_DATADIR}/snmp/mibs)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/schema DESTINATION ${CMAKE_INSTALL_DATADIR}/mvpn)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/yang/ DESTINATION ${CMAKE_INSTALL_DATADIR}/yang/modules/mvpn)
# What an installed mvpn-lab plays: the same tree as here.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/lab/scenarios ${PROJECT_SOURCE_DIR}/lab/templates
  DESTINATION ${CMAKE_INSTALL_DATADIR}/mvpn/lab)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${CMAKE_INSTALL_DATADIR}/mvpn FILES_MATCHING PATTERN "*.conf"
  PATTERN c_host EXCLUDE)

install(FILES ${PROJECT_SOURCE_DIR}/examples/dashboard.json ${PROJECT_SOURCE_DIR}/examples/data-mdt-join.lua
  DESTINATION ${CMAKE_INSTALL_DATADIR}/mvpn)

# bash looks for a file of each program's name, zsh for one that names the programs.
set(completion_folder ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
foreach(program pimctl pimhostd mdt-reflector mvpn-forwarder mvpn-lab mvpn-traffic mvpn-contract-test)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/completion/mvpn.bash DESTINATION ${completion_folder} RENAME ${program})
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/packaging/completion/_mvpn DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)

if(TARGET man)
  get_target_property(pages man PAGES)
  foreach(page IN LISTS pages)
    string(REGEX MATCH "[0-9]$" section ${page})
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endforeach()
endif()

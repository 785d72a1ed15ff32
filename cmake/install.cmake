# cmake --install BUILD [--prefix FOLDER]: the programs, the module, the headers of both sides of its contract, and the
# man pages when scdoc was there to make them.
include(GNUInstallDirs)

# pimhostd finds the module in the library folder of its own prefix, wherever that is. In the build tree the path is the
# same: the room that the build would keep for it otherwise is filled with empty entries, and an empty entry means the
# current folder, where anybody may have put a library.
set_target_properties(pimhostd PROPERTIES
  INSTALL_RPATH "\$ORIGIN/../${CMAKE_INSTALL_LIBDIR}"
  BUILD_WITH_INSTALL_RPATH ON)

install(TARGETS pimhostd mvpn-forwarder pimctl mdt-reflector mvpn-lab mvpn-traffic RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS mvpn LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})

file(GLOB contract_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/platform/*.h)
install(FILES ${contract_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mvpn/platform)
install(FILES ${PROJECT_SOURCE_DIR}/routing/pim/mvpn/mvpn.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mvpn/routing/pim/mvpn)

install(FILES ${PROJECT_SOURCE_DIR}/host/snmp/LIBMVPN-MIB.txt DESTINATION ${CMAKE_INSTALL_DATADIR}/snmp/mibs)

if(TARGET man)
  get_target_property(pages man PAGES)
  foreach(page IN LISTS pages)
    string(REGEX MATCH "[0-9]$" section ${page})
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endforeach()
endif()

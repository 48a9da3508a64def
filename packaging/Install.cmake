# What `cmake --install` lays out under a prefix, and the Debian package
# CPack makes of the same:
#   bin/TalvorStorage, bin/talvor-*      the daemon and the tools
#   bin/TalvorConfig.ini                 commented; an existing one is kept
#   Data/Talvor/                         the default database directory
#   lib/systemd/system/talvor-storage.service  (the package: /lib/systemd/system)
#   share/doc/talvor/README.md           the operator's guide
# The daemon finds its ini beside itself and its database in ../Data/Talvor/,
# so the tree works wherever the prefix is.

# Installing (and packaging) takes the programs as built: it must not build
# every test and benchmark first. Build the programs, then install.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

install(TARGETS TalvorStorage RUNTIME DESTINATION bin)
foreach(dir ${TALVOR_TOOL_DIRS})
  if(IS_DIRECTORY ${dir} AND EXISTS ${dir}/main.cpp)
    get_filename_component(tool ${dir} NAME)
    install(TARGETS ${tool} RUNTIME DESTINATION bin)
  endif()
endforeach()
install(DIRECTORY DESTINATION Data/Talvor)
install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION share/doc/talvor)

# The daemon rewrites its ini at every stop; a reinstall must not put the
# operator's settings back to the shipped ones.
install(CODE "
  set(_ini \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/bin/TalvorConfig.ini\")
  if(EXISTS \"\${_ini}\")
    message(STATUS \"Kept: \${_ini}\")
  else()
    file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/bin\" TYPE FILE
         PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
         FILES \"${CMAKE_SOURCE_DIR}/packaging/TalvorConfig.ini\")
  endif()
")

# The unit names the program and the database by the prefix it is installed
# under, known only at install time. It goes beside the tree, or where
# TALVOR_SYSTEMD_UNITDIR says (the package sets /lib/systemd/system).
install(CODE "
  set(TALVOR_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  file(READ \"${CMAKE_SOURCE_DIR}/packaging/talvor-storage.service.in\" _unit)
  string(CONFIGURE \"\${_unit}\" _unit @ONLY)
  file(WRITE \"${CMAKE_BINARY_DIR}/packaging/talvor-storage.service\" \"\${_unit}\")
  set(_unitdir \"\$ENV{TALVOR_SYSTEMD_UNITDIR}\")
  if(_unitdir STREQUAL \"\")
    set(_unitdir \"\${CMAKE_INSTALL_PREFIX}/lib/systemd/system\")
  endif()
  file(INSTALL DESTINATION \"\${_unitdir}\" TYPE FILE
       PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
       FILES \"${CMAKE_BINARY_DIR}/packaging/talvor-storage.service\")
")

# --- The Debian package -----------------------------------------------------
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME talvor-storage)
set(CPACK_PACKAGE_VERSION_MAJOR 1)
set(CPACK_PACKAGE_VERSION_MINOR 0)
set(CPACK_PACKAGE_VERSION_PATCH 0)
set(CPACK_PACKAGE_CONTACT "Talvor developers <talvor@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Talvor storage daemon, its tools and service unit")
set(CPACK_PACKAGE_DESCRIPTION
    "The storage daemon of the Talvor in-memory database: persistence, the shared block cache, the redo log and its archive, backups and standby shipping; with the database maker, the offline inspector, the redo dump and the backup verifier.")
set(CPACK_PACKAGING_INSTALL_PREFIX /opt/talvor)
# With the staging by DESTDIR (below) this is the prefix cpack installs to.
set(CPACK_INSTALL_PREFIX /opt/talvor)
# The unit's absolute place must land in the package, not on this machine.
set(CPACK_SET_DESTDIR ON)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_SOURCE_DIR}/packaging/CPackOptions.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION database)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6, libuuid1")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "gdb, binutils")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/packaging/deb/postinst
    ${CMAKE_SOURCE_DIR}/packaging/deb/prerm
    ${CMAKE_SOURCE_DIR}/packaging/deb/postrm
    ${CMAKE_SOURCE_DIR}/packaging/deb/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)

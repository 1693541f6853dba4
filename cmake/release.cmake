# What a release is made of: the program's link map, from which
# tools/size-by-library.py tells what takes the space, and the archive the
# firmware engineers drop into their image (`cpack` in a build tree makes
# tzr4417-ARCH.tar.gz there): the stripped program, how to install it, and
# the web servers' configuration.
target_link_options(tzr4417.cgi PRIVATE "LINKER:-Map=$<TARGET_FILE:tzr4417.cgi>.map" "LINKER:--cref")

# The notes and snippets are a component of their own, left out of a plain
# `cmake --install` so that tools/demo.sh's document root holds only cgi-bin.
install(FILES INSTALL.md DESTINATION . COMPONENT notes EXCLUDE_FROM_ALL)
if(EXISTS ${PROJECT_SOURCE_DIR}/web/servers)
  # httpd.sh and tzr4417-certificate.sh stay executable: the board runs them as they come.
  install(DIRECTORY web/servers web/firewall DESTINATION web COMPONENT notes EXCLUDE_FROM_ALL
          USE_SOURCE_PERMISSIONS)
endif()

if(NOT TZR_TARGET_ARCH)
  set(TZR_TARGET_ARCH ${CMAKE_SYSTEM_PROCESSOR})
endif()
set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_FILE_NAME tzr4417-${TZR_TARGET_ARCH})
set(CPACK_STRIP_FILES ON)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL Unspecified notes)
set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
include(CPack)

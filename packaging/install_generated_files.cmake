# Run by `cmake --install` and by cpack: writes the files that name install
# paths (the pkg-config file, the profile snippet) for the prefix that this
# install really goes to, so that an install with --prefix gets its own
# paths. Expects PELORIN_TEMPLATE_DIR, PELORIN_STAGE_DIR, PELORIN_LIBDIR,
# PELORIN_INCLUDEDIR, PELORIN_GENTL_SUBDIR, PELORIN_VERSION, PELORIN_DL_LIBS.
set(prefix "${CMAKE_INSTALL_PREFIX}")
set(includedir "${prefix}/${PELORIN_INCLUDEDIR}")
set(gentldir "${prefix}/${PELORIN_GENTL_SUBDIR}")
set(version "${PELORIN_VERSION}")
set(dl_libs "${PELORIN_DL_LIBS}")
# Configuration files of a /usr install belong in /etc (as GNUInstallDirs
# has it); any other prefix keeps them below itself.
if(prefix STREQUAL "/usr")
  set(sysconfdir "/etc")
else()
  set(sysconfdir "${prefix}/etc")
endif()

# One staging directory per destination, so that installs into different
# places from the same build tree do not share files.
string(MD5 stage_key "$ENV{DESTDIR}${prefix}")
set(stage "${PELORIN_STAGE_DIR}/${stage_key}")
configure_file("${PELORIN_TEMPLATE_DIR}/pelorin-cxp.pc.in" "${stage}/pelorin-cxp.pc" @ONLY)
configure_file("${PELORIN_TEMPLATE_DIR}/pelorin-gentl.sh.in" "${stage}/pelorin-gentl.sh" @ONLY)

file(INSTALL "${stage}/pelorin-cxp.pc" DESTINATION "${prefix}/${PELORIN_LIBDIR}/pkgconfig")
# Sourced by login shells, not run: not executable.
file(INSTALL "${stage}/pelorin-gentl.sh" DESTINATION "${sysconfdir}/profile.d"
     FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

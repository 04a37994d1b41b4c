# Run by `cmake --install`: writes the systemd units of both daemons for the
# prefix chosen at install time (the units name the programs by absolute path,
# and `--prefix` is known only now). The install step sets
# VORN_UNIT_TEMPLATE_DIR and VORN_UNIT_STAGING_DIR before this script runs.

get_filename_component(_vorn_prefix "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)

# A path as one word of an ExecStart line: quoted against blanks, with what
# systemd interprets inside quotes escaped (C escapes and specifiers
# everywhere; variables in the arguments only, not in the program's path).
function(_vorn_unit_word out path kind)
  string(REPLACE "\\" "\\\\" path "${path}")
  string(REPLACE "\"" "\\\"" path "${path}")
  string(REPLACE "%" "%%" path "${path}")
  if(kind STREQUAL "argument")
    string(REPLACE "$" "$$" path "${path}")
  endif()
  set(${out} "\"${path}\"" PARENT_SCOPE)
endfunction()

_vorn_unit_word(VORN_UNIT_CONFIG "${_vorn_prefix}/etc/vornd.xml" argument)

# Staged per prefix, so that installs of one build tree to different prefixes
# do not overwrite each other's units before they are copied; removed after.
string(MD5 _vorn_prefix_key "${_vorn_prefix}")
set(_vorn_stage "${VORN_UNIT_STAGING_DIR}/${_vorn_prefix_key}")
set(_vorn_units)
foreach(_vorn_daemon vorn-serverd vorn-noded)
  _vorn_unit_word(VORN_UNIT_PROGRAM "${_vorn_prefix}/bin/x86_64/${_vorn_daemon}" program)
  configure_file("${VORN_UNIT_TEMPLATE_DIR}/${_vorn_daemon}.service.in"
                 "${_vorn_stage}/${_vorn_daemon}.service" @ONLY)
  list(APPEND _vorn_units "${_vorn_stage}/${_vorn_daemon}.service")
endforeach()

# file(INSTALL) adds $DESTDIR, reports each file and records it in the
# install manifest, like every other installed file.
file(INSTALL DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/systemd/system" TYPE FILE
     PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
     FILES ${_vorn_units})
file(REMOVE_RECURSE "${_vorn_stage}")

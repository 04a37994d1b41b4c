# Run at install time (see vorn_install_units in the top CMakeLists.txt):
# writes systemd units for the prefix chosen then (the units name the programs
# by absolute path, and `--prefix` is known only now). Set before it runs:
#   VORN_UNIT_TEMPLATE_DIR  where the <unit>.service.in templates are
#   VORN_UNIT_STAGING_DIR   a scratch directory in the build tree
#   VORN_UNIT_DIR           where the units go (absolute; $DESTDIR is added)
#   VORN_UNITS              unit=program pairs, e.g. vorn-serve=vorn
#   VORN_UNIT_PACKAGE       the Debian package shipping them, or empty

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
# Where a reader of the unit should make changes, which differs between a
# package (dpkg replaces the unit on upgrade) and a plain install.
if(VORN_UNIT_PACKAGE)
  set(VORN_UNIT_ORIGIN "Installed by the ${VORN_UNIT_PACKAGE} package, which replaces it on \
upgrade: change it\n# with `systemctl edit`, not here.")
else()
  set(VORN_UNIT_ORIGIN "Written by `cmake --install` for its prefix; install again to point it \
at\n# another one.")
endif()
# The server's account, which its status page shares. A package has its own,
# made by its postinst, and keeps its files under /var; a plain install runs
# as root, whose $HOME the repository's configuration uses for both.
if(VORN_UNIT_PACKAGE)
  set(VORN_UNIT_ACCOUNT "# The system account ${VORN_UNIT_PACKAGE} made, owner of /var/lib/vorn and\n\
# /var/cache/vorn. Homes are read-only for it: a database_file moved below\n\
# /home or /root needs ReadWritePaths= naming its directory (`systemctl edit`).\n\
User=vorn\nGroup=vorn\nProtectHome=read-only")
else()
  set(VORN_UNIT_ACCOUNT "# root, whose $HOME holds the database and the working directory of \
the\n# repository's configuration.\nUser=root")
endif()

# Staged per destination, so that installs of one build tree to different
# places do not overwrite each other's units before they are copied; removed
# after.
string(MD5 _vorn_stage_key "$ENV{DESTDIR}|${VORN_UNIT_DIR}|${_vorn_prefix}")
set(_vorn_stage "${VORN_UNIT_STAGING_DIR}/${_vorn_stage_key}")
set(_vorn_units)
foreach(_vorn_pair IN LISTS VORN_UNITS)
  string(REPLACE "=" ";" _vorn_pair "${_vorn_pair}")
  list(GET _vorn_pair 0 _vorn_unit)
  list(GET _vorn_pair 1 _vorn_program)
  _vorn_unit_word(VORN_UNIT_PROGRAM "${_vorn_prefix}/bin/x86_64/${_vorn_program}" program)
  configure_file("${VORN_UNIT_TEMPLATE_DIR}/${_vorn_unit}.service.in"
                 "${_vorn_stage}/${_vorn_unit}.service" @ONLY)
  list(APPEND _vorn_units "${_vorn_stage}/${_vorn_unit}.service")
endforeach()

# file(INSTALL) adds $DESTDIR, reports each file and records it in the
# install manifest, like every other installed file.
file(INSTALL DESTINATION "${VORN_UNIT_DIR}" TYPE FILE
     PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
     FILES ${_vorn_units})
file(REMOVE_RECURSE "${_vorn_stage}")

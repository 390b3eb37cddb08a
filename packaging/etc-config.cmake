# CPack, after staging the install: in the package the configuration is the conffile
# /etc/glimra/glimra.ini, and the program's folder keeps a link to it under the name it reads.
set(stage "${CPACK_TEMPORARY_INSTALL_DIRECTORY}")
if(NOT EXISTS "${stage}/opt/glimra/glimra.ini")
  message(FATAL_ERROR "etc-config: no '${stage}/opt/glimra/glimra.ini' to move")
endif()
file(MAKE_DIRECTORY "${stage}/etc/glimra")
file(RENAME "${stage}/opt/glimra/glimra.ini" "${stage}/etc/glimra/glimra.ini")
file(CREATE_LINK /etc/glimra/glimra.ini "${stage}/opt/glimra/glimra.ini" SYMBOLIC)
# The index of a library is state, not configuration: it lives under /var/lib/glimra.
file(READ "${stage}/etc/glimra/glimra.ini" ini)
string(REPLACE "  index_file=\n" "  index_file=/var/lib/glimra/glimra.index\n" ini "${ini}")
# An installed display takes commands from its own machine only until its owner opens it up.
string(REPLACE "  listen=\n" "  listen=127.0.0.1\n" ini "${ini}")
file(WRITE "${stage}/etc/glimra/glimra.ini" "${ini}")

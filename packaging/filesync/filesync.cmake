# The file sync agent: a second sshd for file transfer only. Its unit, its
# configuration (a conffile) and the forced command that lets only sftp and
# rsync through. Included from packaging/install.cmake.
install(FILES ${CMAKE_CURRENT_LIST_DIR}/../hubwarden-filesync.service DESTINATION lib/systemd/system)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/sshd_config DESTINATION /etc/hubwarden/filesync)
install(PROGRAMS ${CMAKE_CURRENT_LIST_DIR}/filesync-command DESTINATION /usr/libexec/hubwarden)

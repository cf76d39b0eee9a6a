# Run by CPack on what it has staged: Debian's manual pages are compressed, reproducibly.
file(GLOB_RECURSE _files ${CPACK_TEMPORARY_DIRECTORY}/*.[1-9])
foreach(_file ${_files})
  if(_file MATCHES "/man/man[1-9]/")
    execute_process(COMMAND gzip -9nf ${_file} COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()

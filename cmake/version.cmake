# Version resources: every shipped file carries the project's version, company, product, its own
# description and original file name (cmake/version.rc.in).

# norvik_version_rc(<out-var> <file name> <file type 1|2> <description>): writes the file's
# version script into the current binary folder and returns its path.
function(norvik_version_rc out_var file_name file_type description)
  set(NORVIK_VERSION_FILE ${file_name})
  set(NORVIK_VERSION_FILE_TYPE ${file_type})
  set(NORVIK_VERSION_DESCRIPTION ${description})
  get_filename_component(NORVIK_VERSION_INTERNAL ${file_name} NAME_WE)
  set(rc ${CMAKE_CURRENT_BINARY_DIR}/${NORVIK_VERSION_INTERNAL}.version.rc)
  configure_file(${CMAKE_SOURCE_DIR}/cmake/version.rc.in ${rc} @ONLY)
  set(${out_var} ${rc} PARENT_SCOPE)
endfunction()

# norvik_add_version(<executable target> <description>): links the version resource into it.
function(norvik_add_version target description)
  norvik_version_rc(rc ${target}.exe 1 "${description}")
  target_sources(${target} PRIVATE ${rc})
endfunction()

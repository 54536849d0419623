# Removes what `cmake --install` wrote from the build tree BUILD, as its manifests list it, and
# folders that are empty then.
cmake_minimum_required(VERSION 3.25)

file(GLOB manifests ${BUILD}/install_manifest*.txt)
if(NOT manifests)
  message(FATAL_ERROR "Nothing has been installed from ${BUILD}.")
endif()

set(folders)
foreach(manifest IN LISTS manifests)
  file(STRINGS ${manifest} files)
  foreach(file IN LISTS files)
    set(path $ENV{DESTDIR}${file})
    if(EXISTS ${path} OR IS_SYMLINK ${path})
      message(STATUS "Removing: ${path}")
      file(REMOVE ${path})
    endif()
    # The folder and those above it.
    cmake_path(GET path PARENT_PATH folder)
    while(NOT folder STREQUAL "/" AND NOT folder IN_LIST folders)
      list(APPEND folders ${folder})
      cmake_path(GET folder PARENT_PATH folder)
    endwhile()
  endforeach()
  file(REMOVE ${manifest})
endforeach()

# Those below come first.
list(SORT folders ORDER DESCENDING)
foreach(folder IN LISTS folders)
  file(GLOB left LIST_DIRECTORIES true ${folder}/* ${folder}/.*)
  if(folder MATCHES "/[Cc]orvane(/|$)" AND IS_DIRECTORY ${folder} AND NOT IS_SYMLINK ${folder} AND NOT left)
    file(REMOVE_RECURSE ${folder})
  endif()
endforeach()

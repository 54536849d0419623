# corvane_commit(VARIABLE): the first twelve digits of the commit that is built, from commit.txt in
# an archive that git made, else from the checkout; "" if neither tells.
function(corvane_commit variable)
  file(READ ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/commit.txt commit)
  # A checkout's root: sources may lie within a checkout of something else.
  if(NOT commit MATCHES "^[0-9a-f]+" AND EXISTS ${PROJECT_SOURCE_DIR}/.git)
    execute_process(COMMAND git rev-parse HEAD
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE commit ERROR_QUIET)
    execute_process(COMMAND git rev-parse --git-path logs/HEAD
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE log ERROR_QUIET
      OUTPUT_STRIP_TRAILING_WHITESPACE)
    # Grows with each commit, which is then configured anew.
    cmake_path(ABSOLUTE_PATH log BASE_DIRECTORY ${PROJECT_SOURCE_DIR})
    if(EXISTS ${log})
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${log})
    endif()
  endif()
  if(commit MATCHES "^[0-9a-f]+")
    string(SUBSTRING ${CMAKE_MATCH_0} 0 12 commit)
  else()
    set(commit "")
  endif()
  set(${variable} "${commit}" PARENT_SCOPE)
endfunction()

# Writes the header s7200_version.h, which everything that links s7200_build_options can include.
include(GNUInstallDirs)
file(RELATIVE_PATH S7200_LIBDIR_FROM_BINDIR
    ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})

set(S7200_COMMIT "" CACHE STRING "Commit to name where git is not at hand")
find_package(Git QUIET)
if(GIT_FOUND AND NOT S7200_COMMIT)
    execute_process(COMMAND ${GIT_EXECUTABLE} describe --always --dirty
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
        OUTPUT_VARIABLE S7200_COMMIT ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/version.h.in
    ${PROJECT_BINARY_DIR}/generated/s7200_version.h @ONLY)
target_include_directories(s7200_build_options INTERFACE ${PROJECT_BINARY_DIR}/generated)

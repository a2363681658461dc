# The public interface against what is checked in. Included by the top CMakeLists.txt, since a
# command that follows a target's link must stand in the folder of that target.
add_test(NAME exported_names
    COMMAND ${PROJECT_SOURCE_DIR}/packaging/compare-names
        $<TARGET_FILE:Siemens_S7_200_cp243> ${PROJECT_SOURCE_DIR}/include/Siemens_S7_200_cp243.map)

add_test(NAME exported_names_of_host
    COMMAND ${PROJECT_SOURCE_DIR}/packaging/compare-names
        $<TARGET_FILE:s7200host> ${PROJECT_SOURCE_DIR}/host/s7200host.map)

# The binary interfaces are described for one build: gcc, amd64, Qt 5, Release. The types come from
# debug information. That of the driver is kept beside it, not in it: hosts copy the file.
find_program(ABIDIFF abidiff)
if(ABIDIFF AND CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_BUILD_TYPE STREQUAL Release
        AND CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64 AND S7200_QT_MAJOR EQUAL 5
        AND NOT S7200_SANITIZE AND NOT S7200_COVERAGE)
    set(library $<TARGET_FILE:Siemens_S7_200_cp243>)
    set(symbols ${PROJECT_BINARY_DIR}/symbols)
    target_compile_options(Siemens_S7_200_cp243 PRIVATE -g)
    add_custom_command(TARGET Siemens_S7_200_cp243 POST_BUILD
        COMMAND ${CMAKE_COMMAND} -E make_directory ${symbols}
        COMMAND ${CMAKE_COMMAND} -E copy ${library} ${symbols}
        COMMAND ${CMAKE_STRIP} --strip-debug ${library}
        VERBATIM)
    add_test(NAME binary_interface
        COMMAND ${PROJECT_SOURCE_DIR}/packaging/compare-abi
            ${symbols}/$<TARGET_FILE_NAME:Siemens_S7_200_cp243>
            ${PROJECT_SOURCE_DIR}/packaging/abi/Siemens_S7_200_cp243.abi)

    # Of the host library all names are C++, which tell what functions take, so that the types are
    # left, as the headers have them.
    add_library(s7200host_types SHARED packaging/abi/host_types.cpp)
    set_target_properties(s7200host_types PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${symbols})
    target_compile_options(s7200host_types PRIVATE -g -femit-class-debug-always)
    target_link_libraries(s7200host_types PRIVATE s7200_build_options ${QT}::Core)
    target_include_directories(s7200host_types PRIVATE host/include)
    add_test(NAME binary_interface_of_host
        COMMAND ${PROJECT_SOURCE_DIR}/packaging/compare-abi
            $<TARGET_FILE:s7200host_types> ${PROJECT_SOURCE_DIR}/packaging/abi/s7200host.abi)
endif()

# The hosts of the documents, in the tree and against an installation, and the documents themselves.
# Once is enough: the sanitizers and emulators have nothing to find here.
if(NOT S7200_SANITIZE AND NOT S7200_COVERAGE AND NOT CMAKE_CROSSCOMPILING)
    s7200_program(bare_host examples/bare_host.cpp)
    target_link_libraries(bare_host PRIVATE Siemens_S7_200_cp243)
    s7200_program(encodings examples/encodings.cpp)
    target_link_libraries(encodings PRIVATE Siemens_S7_200_cp243)
    add_test(NAME encodings COMMAND encodings)
    add_test(NAME documents
        COMMAND ${PROJECT_SOURCE_DIR}/tools/check-documents $<TARGET_FILE_DIR:s7200-panel>)
    set_tests_properties(documents PROPERTIES TIMEOUT 300)
    s7200_program(ten_lines examples/ten_lines.cpp)
    target_link_libraries(ten_lines PRIVATE s7200host)
    add_test(NAME installed_hosts
        COMMAND ${PROJECT_SOURCE_DIR}/packaging/try-installation ${PROJECT_BINARY_DIR})
    set_tests_properties(installed_hosts PROPERTIES TIMEOUT 300)
endif()

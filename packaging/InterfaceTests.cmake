# The public interface against what is checked in. Included by the top CMakeLists.txt, since a
# command that follows a target's link must stand in the folder of that target.
add_test(NAME exported_names
    COMMAND ${PROJECT_SOURCE_DIR}/packaging/compare-names
        $<TARGET_FILE:Siemens_S7_200_cp243> ${PROJECT_SOURCE_DIR}/include/Siemens_S7_200_cp243.map)

# The binary interface is described for one build: gcc, amd64, Qt 5, Release. The types come from
# debug information, which is kept beside the library, not in it: hosts copy the file.
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

# How the targets of this project are compiled, as a target that each of them links: nothing is set
# for a whole directory, so the project can be added to another one.
add_library(s7200_build_options INTERFACE)
target_compile_features(s7200_build_options INTERFACE cxx_std_17)
target_compile_definitions(s7200_build_options INTERFACE _FILE_OFFSET_BITS=64) # long traces, 32 bits
target_compile_options(s7200_build_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    # Qt Test's own QSKIP(text).
    $<$<CXX_COMPILER_ID:Clang>:-Wno-gnu-zero-variadic-macro-arguments>
    $<$<BOOL:${S7200_WARNINGS_AS_ERRORS}>:-Werror>)

if(S7200_SANITIZE)
    target_compile_options(s7200_build_options INTERFACE
        -fsanitize=${S7200_SANITIZE} -fno-omit-frame-pointer -g)
    target_link_options(s7200_build_options INTERFACE -fsanitize=${S7200_SANITIZE})
    if(S7200_SANITIZE MATCHES undefined)
        target_compile_options(s7200_build_options INTERFACE -fno-sanitize-recover=undefined)
    endif()
endif()
if(S7200_COVERAGE)
    target_compile_options(s7200_build_options INTERFACE --coverage -fprofile-update=atomic -O0 -g)
    target_link_options(s7200_build_options INTERFACE --coverage)
endif()

set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# s7200_program(NAME SOURCE...): a program of the project.
function(s7200_program name)
    add_executable(${name} ${ARGN})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name} PRIVATE s7200_build_options)
    if(S7200_SANITIZE MATCHES thread)
        target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/tsan_qt.cpp)
    endif()
endfunction()

# s7200_static(NAME SOURCE...): a library of the project that only its own programs use.
function(s7200_static name)
    add_library(${name} STATIC ${ARGN})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
    target_link_libraries(${name} PRIVATE s7200_build_options)
endfunction()

# Debian packages: the libraries, one for development, one with the programs. `cpack` in the build
# folder of the preset "package" makes them; ./check --package does that and tries them.
set(driver_package libsiemens-s7-200-cp243-${PROJECT_VERSION_MAJOR})
set(host_package libs7200host${PROJECT_VERSION_MAJOR})
set(qt_dev_5 qtbase5-dev)
set(qt_dev_6 qt6-base-dev)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME s7200-driver)
set(CPACK_PACKAGE_CONTACT "The s7200-driver maintainers <maintainers@s7200-driver.example>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL driver host dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)

# debian_package(COMPONENT NAME SECTION DEPENDS TITLE TEXT)
function(debian_package component name section depends title text)
    string(TOUPPER ${component} upper)
    set(prefix CPACK_DEBIAN_${upper})
    set(${prefix}_PACKAGE_NAME ${name} PARENT_SCOPE)
    set(${prefix}_PACKAGE_SECTION ${section} PARENT_SCOPE)
    set(${prefix}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
    set(CPACK_COMPONENT_${upper}_DESCRIPTION "${title}\n${text}" PARENT_SCOPE)

    # What every Debian package says of itself. The owner has yet to choose a licence.
    set(doc_dir ${CMAKE_CURRENT_BINARY_DIR}/${name})
    configure_file(copyright.in ${doc_dir}/copyright @ONLY)
    configure_file(changelog.in ${doc_dir}/changelog @ONLY)
    execute_process(COMMAND gzip -9nf ${doc_dir}/changelog)
    install(FILES ${doc_dir}/copyright ${doc_dir}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
endfunction()

# library_package(COMPONENT LIBRARY): what others that are linked to the library depend on.
function(library_package component library)
    string(TOUPPER ${component} upper)
    set(control_dir ${CMAKE_CURRENT_BINARY_DIR}/${component})
    file(WRITE ${control_dir}/triggers "activate-noawait ldconfig\n")
    file(WRITE ${control_dir}/shlibs
        "lib${library} ${PROJECT_VERSION_MAJOR} ${${component}_package} (>= ${PROJECT_VERSION})\n")
    set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA
        ${control_dir}/triggers ${control_dir}/shlibs PARENT_SCOPE)
endfunction()

set(same_version "(= ${PROJECT_VERSION})")
debian_package(driver ${driver_package} libs ""
    "communication driver for S7-200 controllers"
    "A library that the runtime of an operator panel loads to exchange data with
an S7-200 controller through a CP 243-1 Ethernet module. It schedules, frames
and checks; the host sends, receives and waits.")
debian_package(host ${host_package} libs "${driver_package} ${same_version}"
    "S7-200 controllers as objects of a Qt event loop"
    "One object for each controller, any number in one thread: it connects, keeps
the link up, reads what is watched, and reads and writes on request.")
debian_package(dev libs7200-dev libdevel
    "${driver_package} ${same_version}, ${host_package} ${same_version}, ${qt_dev_${S7200_QT_MAJOR}}"
    "communication driver for S7-200 controllers, for development"
    "Headers, CMake packages and pkg-config files of the driver library and of the
host library.")
debian_package(tools s7200-tools comm "${driver_package} ${same_version}"
    "watches, reads and writes S7-200 controllers, and simulates one"
    "Two programs: s7200-panel watches, reads and writes variables from the command
line, and s7200-sim is a controller to talk to, with faults on request.")

library_package(driver Siemens_S7_200_cp243)
library_package(host s7200host)

include(CPack)

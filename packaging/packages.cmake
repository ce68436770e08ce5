# `cmake --install`, and the packages that `make packages` has CPack make. What goes where is in packaging/files.list.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set_property(CACHE CMAKE_INSTALL_PREFIX PROPERTY VALUE /usr)
endif()
set(QUORBIT_MAINTAINER "Quorbit <quorbit@quorbit.invalid>" CACHE STRING "who answers for the packages: name and address")

set(CPACK_PACKAGE_NAME quorbit)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "${QUORBIT_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)
set(CPACK_OUTPUT_FILE_PREFIX "${CMAKE_BINARY_DIR}/packages")
set(CPACK_THREADS 1)   # several make xz's output depend on the machine
set(CPACK_VERBATIM_VARIABLES ON)

# Each package has its symbols in another one beside it.
set(CPACK_COMPONENTS_ALL "")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(debian_version "${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

# Places the files of a package when that is installed, or without a name what `make install` places. DESTDIR is in the
# environment then.
function(quorbit_install package)
  install(CODE "
    set(ENV{BUILD} \"${CMAKE_BINARY_DIR}\")
    set(ENV{PREFIX} \"\${CMAKE_INSTALL_PREFIX}\")
    set(ENV{PACKAGE_VERSION} \"${debian_version}\")
    set(ENV{MAINTAINER} \"${CPACK_PACKAGE_CONTACT}\")
    execute_process(COMMAND \"${CMAKE_SOURCE_DIR}/packaging/install\" ${package} COMMAND_ERROR_IS_FATAL ANY)" ${ARGN})
endfunction()

# A macro: what it sets is for CPack. packaging/debian/NAME has the package's description and control files.
macro(quorbit_package name section depends)
  quorbit_install(${name} COMPONENT ${name} EXCLUDE_FROM_ALL)
  list(APPEND CPACK_COMPONENTS_ALL ${name})
  string(TOUPPER ${name} component)
  file(GLOB control_files "${CMAKE_SOURCE_DIR}/packaging/debian/${name}/*")
  list(FILTER control_files EXCLUDE REGEX "/description$")
  file(READ "${CMAKE_SOURCE_DIR}/packaging/debian/${name}/description" description)
  string(STRIP "${description}" CPACK_DEBIAN_${component}_DESCRIPTION)
  set(CPACK_DEBIAN_${component}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${component}_PACKAGE_SOURCE quorbit)
  set(CPACK_DEBIAN_${component}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${component}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_DEBIAN_${component}_PACKAGE_CONTROL_EXTRA "${control_files}")
endmacro()

quorbit_install("")
quorbit_package(quorbit admin "systemd | systemd-standalone-sysusers, systemd | systemd-standalone-tmpfiles")
quorbit_package(quorbit-php php "quorbit (= ${debian_version})")
include(CPack)

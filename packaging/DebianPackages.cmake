# Debian packages: `cpack` makes them in a build folder that was configured for /usr, and finish-debs adds
# the packages of the libraries that they load. scripts/package runs both.
set(maintainer "The qvcapture maintainers <maintainers@qvcapture.invalid>")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qvcapture)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${maintainer})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tool operator companions door fleet)
if(QV_API_REFERENCE)
  list(APPEND CPACK_COMPONENTS_ALL doc)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
else()
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()

set(this_version "(= ${PROJECT_VERSION})")

# A package is a component, its name, section, what it needs besides libraries, and its description.
macro(debian_package component name section depends summary text)
  string(TOUPPER ${component} key)
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${key}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_COMPONENT_${key}_DESCRIPTION "${summary}\n${text}")
  execute_process(
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/debian-changelog ${PROJECT_SOURCE_DIR}/CHANGELOG.md
            qvcapture ${maintainer}
    COMMAND gzip -9nc
    OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
    COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/lintian/${name})
    install(FILES lintian/${name} DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
      COMPONENT ${component})
  endif()
endmacro()

debian_package(runtime libqvcapture3 libs ""
  "capture-device library"
  "Finds, opens and drives the channels of Pelix, Lumo and Tavo Capture
devices: identity, settings, events, video and audio capture, firmware.")
debian_package(dev libqvcapture-dev libdevel
  "libqvcapture3 ${this_version}, libasound2-dev, libv4l-dev"
  "capture-device library - development files"
  "Headers for C and C++, manual pages, data for pkg-config and CMake, and the
static library of what drives Pelix, Lumo and Tavo Capture devices.")
debian_package(tool qvcap-upgrade admin
  "libqvcapture3 ${this_version}"
  "firmware upgrade of capture cards"
  "Lists the Pelix and Lumo Capture cards of a computer and upgrades their
firmware from packages in the current directory: erases, writes and verifies
section by section.")
debian_package(operator qvcap admin
  "qvcap-upgrade ${this_version}, libqvcapture3 ${this_version}"
  "unattended firmware upgrades of capture cards"
  "Says what firmware the Pelix and Lumo Capture cards of a computer run, hold and
need, upgrades them unattended by qvcap-upgrade, reads back what was written,
saves images as packages, and says what is wrong.")
debian_package(companions qvcapture-companions utils "qvcapture-door ${this_version}"
  "simulated capture cards and firmware package tool"
  "qvcap-sim lays out simulated capture cards, flash memory and faults included,
and runs programs on them. qvftool makes, shows, checks, signs and takes
apart firmware packages.")
debian_package(door qvcapture-door utils ""
  "simulated capture cards - what programs load"
  "Loaded by \"qvcap-sim run\" of qvcapture-companions into the programs that it
starts, so that they find simulated cards. That of another architecture serves
programs of that one.")
set(CPACK_DEBIAN_COMPANIONS_PACKAGE_SUGGESTS qvcap-upgrade)
set(CPACK_DEBIAN_COMPANIONS_PACKAGE_RECOMMENDS openssh-client)  # ssh-keygen signs packages
debian_package(fleet qvcapture-fleet admin "python3 (>= 3.11), python3-jinja2"
  "firmware of capture cards on many hosts"
  "A collection for Ansible that upgrades the capture cards of many hosts, the
canary first, puts backups back, and makes one page that shows all hosts. Each
host has the package qvcap.")
set(CPACK_DEBIAN_FLEET_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_FLEET_PACKAGE_RECOMMENDS ansible-core)
if(QV_API_REFERENCE)
  debian_package(doc libqvcapture-doc doc ""
    "capture-device library - API reference"
    "Every function and record of the library, with pages about tasks and threads,
as HTML: /usr/share/doc/libqvcapture-doc/html/index.html.")
  set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
  set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS libqvcapture-doc)
endif()

file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/control/triggers "activate-noawait ldconfig\n")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/control/shlibs
  "libqvcapture ${PROJECT_VERSION_MAJOR} libqvcapture3 (>= ${PROJECT_VERSION})\n")
file(CHMOD ${CMAKE_CURRENT_BINARY_DIR}/control/triggers ${CMAKE_CURRENT_BINARY_DIR}/control/shlibs
  PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_BINARY_DIR}/control/triggers ${CMAKE_CURRENT_BINARY_DIR}/control/shlibs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)

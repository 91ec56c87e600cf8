# Debian packages made by CPack from the install rules, one per component
# (scripts/package.sh builds them):
#   libquil-audio<major>  runtime: libquil_audio.so.<major>, libquil_api.so.<major>
#   libquil-audio-dev     development: headers, CMake package, pkg-config file,
#                         the API reference, the README and the examples
#   quil-audio            tool: quil-audio and its manual page
# A Qt 6 build makes libquil-audio-qt6-<major> and libquil-audio-qt6-dev, which
# install beside the Qt 5 ones, and no tool package (tools/CMakeLists.txt).
# Their library dependencies are found by dpkg-shlibdeps (Debian dpkg-dev).
# Debian separates a name that ends in a digit from the SONAME's version.
string(REGEX REPLACE "([0-9])$" "\\1-" QUIL_DEB_LIBRARY_NAME libquil-audio${QUIL_NAME_SUFFIX})
set(QUIL_DEB_RUNTIME ${QUIL_DEB_LIBRARY_NAME}${PROJECT_VERSION_MAJOR})
set(QUIL_DEB_DEVELOPMENT libquil-audio${QUIL_NAME_SUFFIX}-dev)
set(QUIL_DEB_TOOL quil-audio)

# Debian wants a copyright file and a compressed changelog in every package's
# documentation folder. Only component installs (CPack) put them there.
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/debian/changelog QUIL_DEB_CHANGELOG_TOP LIMIT_COUNT 1)
if(NOT QUIL_DEB_CHANGELOG_TOP MATCHES "\\(${PROJECT_VERSION}\\)")
    message(FATAL_ERROR "cmake/debian/changelog has no entry for version ${PROJECT_VERSION} at its top")
endif()
set(QUIL_DEB_CHANGELOG_GZ ${PROJECT_BINARY_DIR}/debian/changelog.gz)
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/debian)
# -n: no name or time stamp, so that the package's content is reproducible.
execute_process(COMMAND gzip -9nc ${CMAKE_CURRENT_LIST_DIR}/debian/changelog
                OUTPUT_FILE ${QUIL_DEB_CHANGELOG_GZ} COMMAND_ERROR_IS_FATAL ANY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/debian/changelog)
set(QUIL_DEB_COMPONENTS runtime development)
if(QUIL_INSTALL_TOOL)
    list(APPEND QUIL_DEB_COMPONENTS tool)
endif()
foreach(component ${QUIL_DEB_COMPONENTS})
    string(TOUPPER ${component} upper)
    install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${QUIL_DEB_CHANGELOG_GZ}
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${QUIL_DEB_${upper}}
            COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quil-audio${QUIL_NAME_SUFFIX})
set(CPACK_PACKAGE_VENDOR "libquil_audio developers")
set(CPACK_PACKAGE_CONTACT "libquil_audio developers <devel@quil-audio.example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Each component describes itself; a shared summary would head every one.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${QUIL_DEB_COMPONENTS})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tool needs the project's own libraries, which no installed package
# provides yet: dpkg-shlibdeps finds them in the build tree.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/src/lib ${PROJECT_BINARY_DIR}/src/api/platform)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${QUIL_DEB_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# A shlibs file, so that packages built against the libraries depend on this
# one (only the runtime package holds libraries), and the ldconfig trigger.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "ALSA capture, playback and mixer control for embedded Linux - runtime
libquil_audio gives a device's programs one object model for audio on ALSA:
capture from a PCM or a paced raw file, distribution of the stream to live
and time-shifted consumers, playback with negotiated parameters and xrun
recovery, and simple-mixer control with change signals, built on Qt ${QUIL_QT_MAJOR_VERSION} Core
and log4cplus.
.
This package holds the shared libraries libquil_audio and libquil_api.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${QUIL_DEB_DEVELOPMENT})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
# The public headers include Qt's and ALSA's; the CMake package and the
# pkg-config file name both.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${QUIL_QT_DEBIAN_DEV}, libasound2-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "ALSA capture, playback and mixer control for embedded Linux - development
libquil_audio gives a device's programs one object model for audio on ALSA:
capture, distribution to live and time-shifted consumers, playback and
simple-mixer control, built on Qt ${QUIL_QT_MAJOR_VERSION} Core and log4cplus.
.
This package holds the headers, the CMake package (find_package(${QUIL_AUDIO_PACKAGE})),
the pkg-config file (quil_audio${QUIL_NAME_SUFFIX}), the API reference in HTML, and example
programs, one task each.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ${QUIL_DEB_TOOL})
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION sound)
set(CPACK_COMPONENT_TOOL_DEPENDS runtime)
set(CPACK_DEBIAN_TOOL_DESCRIPTION
    "command-line client of libquil_audio for bringing audio up on a board
quil-audio records from and plays to ALSA PCMs, lists the PCMs and cards a
board offers, and lists, sets and watches mixer elements, through
libquil_audio, before the board's own host program exists.")

include(CPack)

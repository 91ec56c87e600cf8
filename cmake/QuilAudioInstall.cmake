# Installs both libraries, their public headers (internal *_p.h headers stay
# behind), a CMake package (find_package(QuilAudio), targets QuilAudio::quil_audio
# and QuilAudio::quil_api) and a pkg-config file (quil_audio). The quil-audio
# tool installs itself (tools/CMakeLists.txt). Components, as packaged:
# runtime (the versioned libraries), development (the rest) and tool.
# A Qt 6 build installs the same under its own names, beside the Qt 5 build's:
# libquil_audio-qt6, include/quil_audio-qt6, find_package(QuilAudioQt6) (the
# same target names) and quil_audio-qt6.
include(CMakePackageConfigHelpers)

set(QUIL_AUDIO_PACKAGE QuilAudio${QUIL_PACKAGE_SUFFIX})
set(QUIL_AUDIO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/${QUIL_AUDIO_PACKAGE})

install(TARGETS quil_audio quil_api EXPORT QuilAudioTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
# Public headers go into one folder, as the build tree's include directories
# make them visible side by side.
file(GLOB QUIL_AUDIO_PUBLIC_HEADERS CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/src/lib/audio/*.h
    ${PROJECT_SOURCE_DIR}/src/lib/audio/alsa/*.h
    ${PROJECT_SOURCE_DIR}/src/api/core/*.h)
list(FILTER QUIL_AUDIO_PUBLIC_HEADERS EXCLUDE REGEX "_p\\.h$")
install(FILES ${QUIL_AUDIO_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quil_audio${QUIL_NAME_SUFFIX}
    COMPONENT development)
file(GLOB QUIL_API_PUBLIC_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/api/platform/*.h)
install(FILES ${QUIL_API_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quil_api${QUIL_NAME_SUFFIX} COMPONENT development)

# The README, the examples and the API reference (docs/CMakeLists.txt) go
# with the headers into the -dev package's documentation folder: whoever
# builds against the library reads them, and they are too small for a package of their own.
set(QUIL_AUDIO_DEV_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/libquil-audio${QUIL_NAME_SUFFIX}-dev)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${QUIL_AUDIO_DEV_DOC_DIR} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${QUIL_AUDIO_DEV_DOC_DIR} COMPONENT development)

install(EXPORT QuilAudioTargets NAMESPACE QuilAudio:: FILE ${QUIL_AUDIO_PACKAGE}Targets.cmake
    DESTINATION ${QUIL_AUDIO_CMAKE_DIR} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/QuilAudioConfig.cmake.in
    ${PROJECT_BINARY_DIR}/${QUIL_AUDIO_PACKAGE}Config.cmake INSTALL_DESTINATION ${QUIL_AUDIO_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/${QUIL_AUDIO_PACKAGE}ConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/${QUIL_AUDIO_PACKAGE}Config.cmake
              ${PROJECT_BINARY_DIR}/${QUIL_AUDIO_PACKAGE}ConfigVersion.cmake
    DESTINATION ${QUIL_AUDIO_CMAKE_DIR} COMPONENT development)

file(RELATIVE_PATH QUIL_AUDIO_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${PROJECT_SOURCE_DIR}/cmake/quil_audio.pc.in ${PROJECT_BINARY_DIR}/quil_audio${QUIL_NAME_SUFFIX}.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quil_audio${QUIL_NAME_SUFFIX}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT development)

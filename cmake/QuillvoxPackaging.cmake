# SPDX-License-Identifier: GPL-3.0-or-later
# What an installed Quillvox holds besides the executable, its desktop entry and D-Bus service file
# (src/CMakeLists.txt), and the CPack settings of its Debian package (scripts/package.sh).
include(GNUInstallDirs)

install(FILES ${PROJECT_SOURCE_DIR}/resources/com.vantor.Quillvox.metainfo.xml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
install(FILES ${PROJECT_SOURCE_DIR}/resources/icons/app/quillvox.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
install(FILES ${PROJECT_SOURCE_DIR}/resources/icons/app/quillvox-symbolic.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/symbolic/apps)
# The tray item's icon names: panels that recolour symbolic icons find them here.
install(FILES ${PROJECT_SOURCE_DIR}/resources/icons/waveform.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/symbolic/apps RENAME com.vantor.Quillvox-symbolic.svg)
install(FILES ${PROJECT_SOURCE_DIR}/resources/icons/waveform.circle.fill.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/symbolic/apps
        RENAME com.vantor.Quillvox-playing-symbolic.svg)

if(QUILLVOX_PACKAGING)
    # The D-Bus service file names the executable by its installed path.
    if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
        message(FATAL_ERROR "QUILLVOX_PACKAGING needs CMAKE_INSTALL_PREFIX=/usr")
    endif()
    find_program(HELP2MAN help2man REQUIRED)
    find_program(GZIP gzip REQUIRED)
    set(packaging_dir ${CMAKE_BINARY_DIR}/packaging)
    # The manual is the --help text, so that the two never disagree. -n: gzip without a timestamp,
    # so that the same sources make the same package.
    add_custom_command(
        OUTPUT ${packaging_dir}/quillvox.1.gz ${packaging_dir}/changelog.Debian.gz
        COMMAND ${CMAKE_COMMAND} -E make_directory ${packaging_dir}
        COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C.UTF-8
                ${HELP2MAN} --no-info --section 1 --name "read selected text aloud"
                --version-string ${PROJECT_VERSION}
                --output ${packaging_dir}/quillvox.1 $<TARGET_FILE:quillvox>
        COMMAND ${GZIP} -9nf ${packaging_dir}/quillvox.1
        COMMAND ${CMAKE_COMMAND} -E copy ${PROJECT_SOURCE_DIR}/packaging/debian/changelog
                ${packaging_dir}/changelog.Debian
        COMMAND ${GZIP} -9nf ${packaging_dir}/changelog.Debian
        DEPENDS quillvox ${PROJECT_SOURCE_DIR}/packaging/debian/changelog
        COMMENT "Generating the manual page and the Debian changelog"
        VERBATIM)
    add_custom_target(quillvox_package_docs ALL
        DEPENDS ${packaging_dir}/quillvox.1.gz ${packaging_dir}/changelog.Debian.gz)
    install(FILES ${packaging_dir}/quillvox.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/debian/copyright ${packaging_dir}/changelog.Debian.gz
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/quillvox)

    set(CPACK_GENERATOR DEB)
    set(CPACK_PACKAGE_NAME quillvox)
    set(CPACK_PACKAGE_VENDOR "Vantor")
    set(CPACK_PACKAGE_CONTACT "Quillvox Team <support@quillvox.app>")
    set(CPACK_PACKAGE_HOMEPAGE_URL "https://quillvox.app")
    set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "read selected text aloud")
    string(CONCAT CPACK_PACKAGE_DESCRIPTION
        "Quillvox reads the text selected in any application aloud when its\n"
        "shortcut is pressed. It streams speech from the Quillvox service or from\n"
        "any OpenAI-compatible speech endpoint with your own key, plays it while\n"
        "it arrives, and keeps secrets in the desktop's keyring.")
    set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
    set(CPACK_STRIP_FILES ON)
    set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
        OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
    set(CPACK_DEBIAN_PACKAGE_SECTION sound)
    set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
    # Linked libraries come from dpkg-shlibdeps; these are loaded at run time, where no linker sees them:
    # the QML modules the windows import, the SVG image and icon plugins, the Wayland platform plugin, and
    # wl-paste, which reads the highlighted text on Wayland.
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    string(CONCAT CPACK_DEBIAN_PACKAGE_DEPENDS
        "qml6-module-qtquick, qml6-module-qtquick-layouts, "
        "qml6-module-qtquick-templates, qml6-module-qtquick-window, qml6-module-qtqml-workerscript, "
        "libqt6svg6, qt6-wayland, wl-clipboard")
    # Secrets need a Secret Service provider; any one of these is one.
    set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "gnome-keyring | libkf5wallet-bin | keepassxc")
    include(CPack)
endif()

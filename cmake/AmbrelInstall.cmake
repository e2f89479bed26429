# Install rules and the Debian package. Included from the top-level file.
include(GNUInstallDirs)

set(AMBREL_APP_ID com.quellbrook.ambrel)
set(AMBREL_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/ambrel)
# Directories made by the install are 0755 whatever the packager's umask.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# The helper sits beside ambrel, where the program looks for it; polkit must
# name the same file.
install(TARGETS ambrel RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(TARGET ambrel-helper)
    install(TARGETS ambrel-helper RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
# The program's own modules, private to it: in a folder of its own under the
# library folder, where the program looks for them. Not executable, as
# Debian wants shared objects.
set(module_targets ambrel-services)
if(TARGET ambrel-window)
    list(APPEND module_targets ambrel-window)
endif()
install(TARGETS ${module_targets} LIBRARY DESTINATION ${AMBREL_MODULE_INSTALL_DIR}
    PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
set(AMBREL_HELPER_INSTALLED_PATH ${CMAKE_INSTALL_FULL_BINDIR}/ambrel-helper)
configure_file(data/polkit/com.quellbrook.ambrel.helper.policy.in
    ${CMAKE_BINARY_DIR}/data/com.quellbrook.ambrel.helper.policy @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/data/com.quellbrook.ambrel.helper.policy
    DESTINATION ${CMAKE_INSTALL_DATADIR}/polkit-1/actions)

install(FILES data/${AMBREL_APP_ID}.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES data/${AMBREL_APP_ID}.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
install(FILES data/icons/${AMBREL_APP_ID}.svg
    DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
foreach(size 16 24 32 48 64 128 256)
    install(FILES data/icons/${size}/${AMBREL_APP_ID}.png
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps)
endforeach()

# Manual pages from their scdoc sources, compressed as Debian wants them.
find_program(AMBREL_SCDOC scdoc)
find_program(AMBREL_GZIP gzip)
if(AMBREL_SCDOC AND AMBREL_GZIP)
    set(pages)
    foreach(page ambrel.1 ambrel-helper.1)
        set(src ${CMAKE_SOURCE_DIR}/docs/man/${page}.scd)
        set(out ${CMAKE_BINARY_DIR}/man/${page}.gz)
        add_custom_command(OUTPUT ${out}
            COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
            COMMAND sh -c "\"$1\" < \"$2\" | \"$3\" -9n > \"$4\"" sh ${AMBREL_SCDOC} ${src}
                    ${AMBREL_GZIP} ${out}
            DEPENDS ${src} COMMENT "Writing the manual page ${page}" VERBATIM)
        list(APPEND pages ${out})
    endforeach()
    add_custom_target(manpages ALL DEPENDS ${pages})
    install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
else()
    message(STATUS "scdoc not found: the manual pages are not built")
endif()

# The package's own documents.
set(changelog ${CMAKE_BINARY_DIR}/debian/changelog.gz)
add_custom_command(OUTPUT ${changelog}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/debian
    COMMAND sh -c "gzip -9n < \"$1\" > \"$2\"" sh ${CMAKE_SOURCE_DIR}/data/debian/changelog
            ${changelog}
    DEPENDS data/debian/changelog VERBATIM)
add_custom_target(debian_changelog ALL DEPENDS ${changelog})
install(FILES ${changelog} data/debian/copyright DESTINATION ${AMBREL_DOC_DIR})

set(CPACK_PACKAGE_NAME ambrel)
set(CPACK_PACKAGE_VENDOR Quellbrook)
set(CPACK_PACKAGE_CONTACT "Quellbrook <support@quellbrook.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "keep order among video and audio plug-ins")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Ambrel finds the plug-ins of video and audio host applications (FxPlug,
FxScript, Motion templates, Avid AVX, AVX2 and RTAS, Adobe common plug-ins,
Audio Units, VST, VST2, VST3, OpenFX and Quartz Composer) where the hosts look
for them and shows them in one tree grouped by sub-folder. It enables and
disables plug-ins by moving them into and out of one folder of disabled
plug-ins, moves them between the user's library and the machine's, groups,
installs and trashes them. Every operation is also a command-line verb.")
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://quellbrook.com/ambrel")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# pkexec starts the helper; trash-cli is not needed (the Trash is written directly).
set(CPACK_DEBIAN_PACKAGE_DEPENDS "pkexec")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_STRIP_FILES TRUE)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
include(CPack)

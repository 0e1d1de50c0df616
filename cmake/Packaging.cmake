# The Debian package of the program: `cpack` in a build directory (scripts/package builds one) writes
# tavrel-recorder_<version>_<arch>.deb, installed under /usr.
# Its dependencies on libraries are computed by dpkg-shlibdeps from what the binary links; what Qt loads at
# run time without linking it (the X11 platform plugin) is named by hand.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavrel-recorder)
set(CPACK_PACKAGE_VENDOR "TaVREL")
set(CPACK_PACKAGE_CONTACT "TaVREL <recorder@tavrel.fr>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Enregistre vos appels et visios et les envoie en transcription")
set(CPACK_PACKAGE_DESCRIPTION
    "TaVREL Recorder enregistre les deux côtés d'une conversation (le micro et ce que joue l'ordinateur), \
les mélange en un fichier AAC et l'envoie avec vos notes horodatées au service de transcription de votre \
organisation. Il vit dans la zone de notification.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-qpa-plugins, hicolor-icon-theme")
# XWayland lets the recording panel place itself in a Wayland session; xdg-utils opens links and folders.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "xwayland, xdg-utils")
include(CPack)

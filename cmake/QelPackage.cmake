# A Debian package of what is installed (the library with its SONAME, the headers, qel
# and its manual page, qel.pc and the CMake package): `cpack -G DEB` in a build, or
# tools/package.sh. Depends is computed by dpkg-shlibdeps from the libraries the
# programs link, so the package installs with apt-get on a bare Debian.
set(CPACK_PACKAGE_NAME qel)
set(CPACK_PACKAGE_VENDOR "The Qel developers")
set(CPACK_PACKAGE_CONTACT "The Qel developers <qel@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION "Qel is a small, dynamically typed, class-based scripting language, \
delivered as one shared\nlibrary for embedding and the qel command, which runs scripts and \
offers a prompt.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION interpreters)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The shlibs file tells dpkg-shlibdeps of other packages which package gives libqel.so.0.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_GENERATOR DEB)
include(CPack)

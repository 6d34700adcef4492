# Debian package of the library, its header, the CMake and pkg-config files
# and the ombrix tool (cpack -G DEB), and the API reference generated from
# include/ombrix.h (cmake --build build --target docs) when Doxygen is found.
set(CPACK_PACKAGE_NAME ombrix)
set(CPACK_PACKAGE_VENDOR "Ombrix developers")
set(CPACK_PACKAGE_CONTACT "Ombrix developers <ombrix@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Ombrix pixel kernel: library, C header and the ombrix tool")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
# Dependencies from the binaries themselves (dpkg-shlibdeps); the package's
# own library is declared as provided.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_GENERATOR DEB)
include(CPack)

find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  set(DOXYGEN_PROJECT_NAME Ombrix)
  set(DOXYGEN_PROJECT_BRIEF "Pixel kernel: the C API")
  set(DOXYGEN_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/docs)
  set(DOXYGEN_GENERATE_LATEX NO)
  set(DOXYGEN_EXTRACT_ALL YES)
  set(DOXYGEN_OPTIMIZE_OUTPUT_FOR_C YES)
  set(DOXYGEN_ENABLE_PREPROCESSING YES)
  set(DOXYGEN_MACRO_EXPANSION YES)
  set(DOXYGEN_PREDEFINED "OMBRIX_API=")
  set(DOXYGEN_QUIET YES)
  set(DOXYGEN_WARN_IF_UNDOCUMENTED NO)
  # The header's comments are plain C comments placed before what they
  # describe (and after struct fields): read them as documentation.
  set(DOXYGEN_INPUT_FILTER
      "sed -e 's|^\\([[:space:]]*\\)/\\*\\([^*=-]\\)|\\1/**\\2|' -e 's|\\([;,]\\)\\([[:space:]]*\\)/\\* |\\1\\2/**< |'")
  doxygen_add_docs(docs ${PROJECT_SOURCE_DIR}/include/ombrix.h
                   COMMENT "API reference from include/ombrix.h into ${PROJECT_BINARY_DIR}/docs/html")
endif()

# Locates OpenImageIO from the distribution's libopenimageio-dev and exposes it as the imported
# target OpenImageIO::ImageIO. The package's own CMake configuration is not used: on Debian 12
# it refers to command-line tools and Python modules that other packages install.
find_path(OPENIMAGEIO_INCLUDE_DIR OpenImageIO/imageio.h)
find_library(OPENIMAGEIO_LIBRARY OpenImageIO)
find_library(OPENIMAGEIO_UTIL_LIBRARY OpenImageIO_Util)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenImageIOKavrin
  REQUIRED_VARS OPENIMAGEIO_INCLUDE_DIR OPENIMAGEIO_LIBRARY OPENIMAGEIO_UTIL_LIBRARY)

if(OpenImageIOKavrin_FOUND AND NOT TARGET OpenImageIO::ImageIO)
  add_library(OpenImageIO::ImageIO INTERFACE IMPORTED)
  set_target_properties(OpenImageIO::ImageIO PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${OPENIMAGEIO_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES "${OPENIMAGEIO_LIBRARY};${OPENIMAGEIO_UTIL_LIBRARY}")
endif()
mark_as_advanced(OPENIMAGEIO_INCLUDE_DIR OPENIMAGEIO_LIBRARY OPENIMAGEIO_UTIL_LIBRARY)

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(ZLIB REQUIRED)
find_package(PROJ REQUIRED CONFIG)
find_package(jsoncpp CONFIG REQUIRED)
find_package(GDAL REQUIRED CONFIG)

# LASzip and libgeotiff ship no CMake package on Debian: imported targets from their libraries and headers.
find_library(LASZIP_LIBRARY laszip REQUIRED)
find_path(LASZIP_INCLUDE_DIR laszip/laszip_api.h REQUIRED)
add_library(pcp::laszip UNKNOWN IMPORTED)
set_target_properties(pcp::laszip PROPERTIES IMPORTED_LOCATION ${LASZIP_LIBRARY}
                      INTERFACE_INCLUDE_DIRECTORIES ${LASZIP_INCLUDE_DIR})

# libdeflate (Debian ships no CMake package for it) deflates the PNZ node files: one-shot compression about
# twice as fast as zlib at the same level, writing standard zlib streams. zlib still inflates them.
find_library(LIBDEFLATE_LIBRARY deflate REQUIRED)
find_path(LIBDEFLATE_INCLUDE_DIR libdeflate.h REQUIRED)
add_library(pcp::libdeflate UNKNOWN IMPORTED)
set_target_properties(pcp::libdeflate PROPERTIES IMPORTED_LOCATION ${LIBDEFLATE_LIBRARY}
                      INTERFACE_INCLUDE_DIRECTORIES ${LIBDEFLATE_INCLUDE_DIR})

find_library(GEOTIFF_LIBRARY NAMES geotiff REQUIRED)
find_path(GEOTIFF_INCLUDE_DIR geotiff.h PATH_SUFFIXES geotiff REQUIRED)
add_library(pcp::geotiff UNKNOWN IMPORTED)
set_target_properties(pcp::geotiff PROPERTIES IMPORTED_LOCATION ${GEOTIFF_LIBRARY}
                      INTERFACE_INCLUDE_DIRECTORIES ${GEOTIFF_INCLUDE_DIR})
# Debian's split OpenCV packages (core, imgproc, imgcodecs) install no CMake package; that comes only with the
# full libopencv-dev, which the library does not need.
find_path(OPENCV_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
foreach(module core imgproc imgcodecs)
  find_library(OPENCV_${module}_LIBRARY opencv_${module} REQUIRED)
  add_library(pcp::opencv_${module} UNKNOWN IMPORTED)
  set_target_properties(pcp::opencv_${module} PROPERTIES IMPORTED_LOCATION ${OPENCV_${module}_LIBRARY}
                        INTERFACE_INCLUDE_DIRECTORIES ${OPENCV_INCLUDE_DIR})
endforeach()
find_package(Eigen3 REQUIRED CONFIG)

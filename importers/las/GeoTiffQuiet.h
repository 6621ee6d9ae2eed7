#pragma once

#include <geo_simpletags.h>
#include <geotiff.h>

namespace pc_preprocess::lasz_vlr
{

// libgeotiff's handle on GeoTIFF tags held in memory, as GTIFNewSimpleTags makes it, but with the library's
// complaints about broken keys silenced: by default it prints them to stderr, and a library inside a host
// must not write to the terminal. Null when the keys cannot be read. Release with GTIFFree.
//
// This stands apart because the header that declares libgeotiff's method table clashes with GDAL's headers.
GTIF* newSimpleTagsQuietly(ST_TIFF* tags);

}  // namespace pc_preprocess::lasz_vlr

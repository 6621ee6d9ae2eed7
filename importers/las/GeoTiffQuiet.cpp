#include "importers/las/GeoTiffQuiet.h"

#include <geo_tiffp.h>

namespace pc_preprocess::lasz_vlr
{

namespace
{

void ignoreMessage(GTIF* /*gtif*/, int /*level*/, const char* /*format*/, ...) {}

}  // namespace

GTIF* newSimpleTagsQuietly(ST_TIFF* tags)
{
    TIFFMethod methods;
    GTIFSetSimpleTagsMethods(&methods);
    return GTIFNewWithMethodsEx(tags, &methods, ignoreMessage, nullptr);
}

}  // namespace pc_preprocess::lasz_vlr

// GeoTIFF keys to WKT, through libgeotiff (keys to a normalised definition) and GDAL (definition to WKT).
// Both libraries report trouble on the terminal unless told otherwise; here they are told, since a library
// inside a host must stay quiet and speak through its results.
#include <cpl_error.h>
#include <cpl_vsi.h>
#include <geo_normalize.h>
#include <proj.h>

#include <memory>
#include <stdexcept>

#include "importers/las/GeoTiffQuiet.h"
#include "importers/las/LasBytes.h"
#include "importers/las/LaszVlr.h"

// Exported by libgdal, which installs no header for it.
extern "C" char* GTIFGetOGISDefn(GTIF*, GTIFDefn*);

namespace pc_preprocess::lasz_vlr
{

namespace
{

constexpr int kKeyDirectoryTag = 34735;
constexpr int kDoubleParamsTag = 34736;
constexpr int kAsciiParamsTag = 34737;

// A key directory is a header of four 16-bit values (version, revision, minor revision, number of keys) and
// four values per key. libgeotiff keeps at most 4 + 1000 values of it (its MAX_VALUES): it cuts a longer
// directory short but goes on trusting the longer length, so such a directory is not handed to it.
constexpr size_t kDirectoryHeaderValues = 4;
constexpr size_t kValuesPerKey = 4;
constexpr size_t kMostDirectoryValues = kDirectoryHeaderValues + 1000;

struct ReleaseTags
{
    void operator()(ST_TIFF* tags) const { ST_Destroy(tags); }
};
struct ReleaseGtif
{
    void operator()(GTIF* gtif) const { GTIFFree(gtif); }
};
struct ReleaseDefinition
{
    void operator()(GTIFDefn* definition) const { GTIFFreeDefn(definition); }
};
struct ReleaseGdalText
{
    void operator()(char* text) const { VSIFree(text); }
};
struct ReleaseProjContext
{
    void operator()(PJ_CONTEXT* context) const { proj_context_destroy(context); }
};

// GDAL's messages go nowhere while this lives; the handler stack is the calling thread's own, so conversions
// on other threads and the host's own use of GDAL are untouched.
class QuietGdal
{
public:
    QuietGdal() { CPLPushErrorHandler(CPLQuietErrorHandler); }
    ~QuietGdal() { CPLPopErrorHandler(); }
    QuietGdal(const QuietGdal&) = delete;
    QuietGdal& operator=(const QuietGdal&) = delete;
};

template <typename T>
std::vector<T> valuesOf(const std::vector<uint8_t>& bytes)
{
    std::vector<T> values(bytes.size() / sizeof(T));
    for (size_t i = 0; i < values.size(); ++i)
        values[i] = las::loadField<T>(bytes.data() + i * sizeof(T));
    return values;
}

bool isReadableDirectory(const std::vector<uint16_t>& keys)
{
    return keys.size() >= kDirectoryHeaderValues && keys.size() <= kMostDirectoryValues &&
           kDirectoryHeaderValues + kValuesPerKey * keys[3] <= keys.size();
}

// The WKT of the definition that libgeotiff makes of the tags, or an empty text.
std::string wktOf(ST_TIFF* tags)
{
    // libgeotiff looks codes up in PROJ's database through a context of its own, which would print what it
    // cannot find; this one keeps quiet. It must outlive the handle.
    const std::unique_ptr<PJ_CONTEXT, ReleaseProjContext> context(proj_context_create());
    if (!context)
        return {};
    proj_log_level(context.get(), PJ_LOG_NONE);

    const std::unique_ptr<GTIF, ReleaseGtif> gtif(newSimpleTagsQuietly(tags));
    if (!gtif)
        return {};
    GTIFAttachPROJContext(gtif.get(), context.get());
    const std::unique_ptr<GTIFDefn, ReleaseDefinition> definition(GTIFAllocDefn());
    if (!definition || !GTIFGetDefn(gtif.get(), definition.get()))
        return {};

    const QuietGdal quiet;
    const std::unique_ptr<char, ReleaseGdalText> wkt(GTIFGetOGISDefn(gtif.get(), definition.get()));
    return wkt ? std::string(wkt.get()) : std::string();
}

}  // namespace

std::string convertGEOTIFFtoWKT(const std::vector<uint8_t>& keyDir, const std::vector<uint8_t>& doubles,
                                const std::vector<uint8_t>& ascii)
{
    if (keyDir.empty())
        throw std::runtime_error("convertGEOTIFFtoWKT: Empty geotiffKeyDir.\n");
    if (keyDir.size() % 8 != 0)
        throw std::runtime_error("convertGEOTIFFtoWKT: Incorrect size of geotiffKeyDir.\n");
    if (doubles.size() % 8 != 0)
        throw std::runtime_error("convertGEOTIFFtoWKT: Incorrect size of geotiffDouble.\n");

    std::vector<uint16_t> keys = valuesOf<uint16_t>(keyDir);
    if (!isReadableDirectory(keys))
        return {};
    std::vector<double> values = valuesOf<double>(doubles);
    // A count of 0 would make libgeotiff measure the text with strlen, and its reader expects a terminated
    // text: the zero goes on the end unless the record brought one.
    std::vector<char> text(ascii.begin(), ascii.end());
    if (!text.empty() && text.back() != '\0')
        text.push_back('\0');

    const std::unique_ptr<ST_TIFF, ReleaseTags> tags(ST_Create());
    if (!tags || !ST_SetKey(tags.get(), kKeyDirectoryTag, int(keys.size()), STT_SHORT, keys.data()))
        return {};
    if (!values.empty() &&
        !ST_SetKey(tags.get(), kDoubleParamsTag, int(values.size()), STT_DOUBLE, values.data()))
        return {};
    if (!text.empty() && !ST_SetKey(tags.get(), kAsciiParamsTag, int(text.size()), STT_ASCII, text.data()))
        return {};
    return wktOf(tags.get());
}

}  // namespace pc_preprocess::lasz_vlr

#include "scanview/TopoDef.h"

#include <json/json.h>
#include <proj.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <memory>
#include <stdexcept>

#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

constexpr const char* kKey = "proj=topocentric +ellps=WGS84";

// Earth-centred cartesian to geographic coordinates on WGS84, for the two directions of one origin.
class GeocentricToGeographic
{
public:
    explicit GeocentricToGeographic(const std::string& who)
    {
        m_context = proj_context_create();
        if (m_context == nullptr)
            throw std::runtime_error(who + ": Cannot create PROJ context.\n");
        proj_log_level(m_context, PJ_LOG_NONE);
        PJ* raw =
            proj_create_crs_to_crs(m_context, "proj=cart +ellps=WGS84", "proj=longlat +ellps=WGS84", nullptr);
        if (raw == nullptr)
        {
            proj_context_destroy(m_context);
            throw std::runtime_error(who + ": Cannot create PROJ convertor.\n");
        }
        m_transformation = proj_normalize_for_visualization(m_context, raw);
        proj_destroy(raw);
        if (m_transformation == nullptr)
        {
            proj_context_destroy(m_context);
            throw std::runtime_error(who + ": Cannot normalize PROJ convertor.\n");
        }
    }
    ~GeocentricToGeographic()
    {
        proj_destroy(m_transformation);
        proj_context_destroy(m_context);
    }
    GeocentricToGeographic(const GeocentricToGeographic&) = delete;
    GeocentricToGeographic& operator=(const GeocentricToGeographic&) = delete;

    PJ_COORD toGeographic(double x, double y, double z) const
    {
        return proj_trans(m_transformation, PJ_FWD, proj_coord(x, y, z, 0.0));
    }
    PJ_COORD toGeocentric(double lambda, double phi) const
    {
        return proj_trans(m_transformation, PJ_INV, proj_coord(lambda, phi, 0.0, 0.0));
    }

private:
    PJ_CONTEXT* m_context = nullptr;
    PJ* m_transformation = nullptr;
};

bool finite(const PJ_COORD& c)
{
    return std::isfinite(c.xyz.x) && std::isfinite(c.xyz.y) && std::isfinite(c.xyz.z);
}

TopoDef unreadable()
{
    constexpr double kMax = std::numeric_limits<double>::max();
    return {kMax, kMax, kMax, kMax, kMax, false};
}

}  // namespace

TopoDef computeWGS84(double lambda, double phi)
{
    if (std::fabs(lambda) > 180.0 || std::fabs(phi) > 90.0)
        return {};
    const GeocentricToGeographic conversion("computeWGS84");
    const PJ_COORD c = conversion.toGeocentric(lambda, phi);
    if (!finite(c))
        return {};
    return {lambda, phi, c.xyz.x, c.xyz.y, c.xyz.z, true};
}

TopoDef projectWGS84(double x, double y, double z)
{
    if (std::fabs(x) < 1e-10 && std::fabs(y) < 1e-10 && std::fabs(z) < 1e-10)
        return {};
    const GeocentricToGeographic conversion("projectWGS84");
    const PJ_COORD geographic = conversion.toGeographic(x, y, z);
    if (!finite(geographic))
        return {};
    const PJ_COORD foot = conversion.toGeocentric(geographic.lp.lam, geographic.lp.phi);
    if (!finite(foot))
        return {};
    return {geographic.lp.lam, geographic.lp.phi, foot.xyz.x, foot.xyz.y, foot.xyz.z, true};
}

TopoDef readTopoDef(const std::wstring& path)
{
    std::ifstream in(toPath(path));
    if (!in)
        return unreadable();
    Json::Value root;
    Json::CharReaderBuilder builder;
    std::string errors;
    if (!Json::parseFromStream(builder, in, &root, &errors) || !root.isObject() || !root.isMember(kKey))
        return unreadable();
    const Json::Value& origin = root[kKey];
    if (!origin.isObject())
        return unreadable();
    for (const char* field : {"lambda0", "phi0", "height0", "x0", "y0", "z0"})
        if (!origin.isMember(field) || !origin[field].isNumeric())
            return unreadable();
    if (origin["height0"].asDouble() != 0.0)
        return unreadable();
    return {origin["lambda0"].asDouble(), origin["phi0"].asDouble(), origin["x0"].asDouble(),
            origin["y0"].asDouble(),      origin["z0"].asDouble(),   true};
}

void writeTopoDef(const std::wstring& path, const TopoDef& def)
{
    Json::Value origin(Json::objectValue);
    origin["lambda0"] = def.lambda0;
    origin["phi0"] = def.phi0;
    origin["height0"] = 0.0;
    origin["x0"] = def.x0;
    origin["y0"] = def.y0;
    origin["z0"] = def.z0;
    Json::Value root(Json::objectValue);
    root[kKey] = origin;

    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["precision"] = 17;
    std::ofstream out(toPath(path));
    const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    writer->write(root, &out);
    out.close();
    if (!out)
        throw std::runtime_error("writeTopoDef : Could not fully write " + ws2s(path) + "\nDisk full?");
}

}  // namespace pc_preprocess

#include "hspc/convert/SourceDescription.h"

#include <utility>

#include "hspc/format/AttributeDescription.h"

namespace HSPC
{

SourceAttribute makeSourceAttribute(uint8_t type, uint8_t role, std::string name, double scale, double offset)
{
    SourceAttribute source;
    source.attribute = Attribute{type, role, std::move(name)};
    source.size = typeSize(type);
    source.scale = scale;
    source.offset = offset;
    return source;
}

bool parseSourceDescription(const std::string& jsonText, const LogFunction& errorLogger,
                            SourceDescription& description)
{
    description.clear();
    std::vector<AttributeDescription> entries;
    if (!parseAttributeDescription(jsonText, errorLogger, entries))
    {
        return false;
    }
    if (entries.empty())
    {
        errorLogger("parseSourceDescription: no attribute-description entry describes the source records.");
        return false;
    }
    for (const AttributeDescription& entry : entries)
    {
        const HistogramSpec& histogram = entry.histogram;
        SourceAttribute source = makeSourceAttribute(histogram.type, histogram.role, histogram.name,
                                                     entry.scale.value_or(1.0), entry.offset.value_or(0.0));
        if (histogram.hasMax)
        {
            source.max = histogram.max;
        }
        description.push_back(std::move(source));
    }
    return true;
}

uint32_t sourceRecordSize(const SourceDescription& description)
{
    uint32_t size = 0;
    for (const SourceAttribute& source : description)
    {
        size += source.size;
    }
    return size;
}

}  // namespace HSPC

#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "cachefiles/FileDescriptor.h"
#include "cachefiles/NodeCodec.h"
#include "core/IoLightPoint.h"

namespace pc_preprocess
{

// Side files of a node, beside it and uncompressed for PNT and PNZ alike:
//   class file   "<stem>-class.pnt"   1 unsigned byte per point, in record order, no header
//   normal file  "<stem>-normal.pnt"  3 x float (nx, ny, nz) per point, in record order, no header
// Either may be absent; its values then read as 0. A file shorter than the node's point count is refused
// rather than read past its end.

inline constexpr uint64_t kNormalSize = 12;

// Sets classification and normal of a point from the side values of index k; null means no such file.
inline void fillSideValues(const uint8_t* classes, const uint8_t* normals, uint64_t k, IoLightPoint& p)
{
    p.classification = classes != nullptr ? classes[k] : 0;
    if (normals != nullptr)
    {
        const uint8_t* normal = normals + kNormalSize * k;
        std::memcpy(&p.nx, normal, 4);
        std::memcpy(&p.ny, normal + 4, 4);
        std::memcpy(&p.nz, normal + 8, 4);
    }
    else
        p.nx = p.ny = p.nz = 0.0f;
}

inline void encodeNormal(const IoLightPoint& p, uint8_t* normal)
{
    std::memcpy(normal, &p.nx, 4);
    std::memcpy(normal + 4, &p.ny, 4);
    std::memcpy(normal + 8, &p.nz, 4);
}

// Both side files of a node read in blocks, for the readers that stream.
class SideFileBlocks
{
public:
    SideFileBlocks(const std::wstring& node, uint64_t numPoints, uint64_t maxBlockPoints,
                   const std::string& errorPrefix);

    // Reads the side values of count points from first on; count is at most maxBlockPoints.
    void read(uint64_t first, uint64_t count);
    // Fills a point with the side values of index k of the last block.
    void fill(uint64_t k, IoLightPoint& p) const
    {
        fillSideValues(m_classFile.get() >= 0 ? m_classes.data() : nullptr,
                       m_normalFile.get() >= 0 ? m_normals.data() : nullptr, k, p);
    }

private:
    FileDescriptor m_classFile;
    FileDescriptor m_normalFile;
    std::vector<uint8_t> m_classes;
    std::vector<uint8_t> m_normals;
    std::string m_errorPrefix;
};

// All points of a node in memory, with the side values of the files beside nodePath.
void decodeWithSideFiles(const std::wstring& nodePath, const NodeBytes& node, const std::string& errorPrefix,
                         std::vector<IoLightPoint>& points);

}  // namespace pc_preprocess

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/Export.h"
#include "core/ExportPoint.h"
#include "core/SupportedAttributes.h"
#include "geom/Matrix3d.h"

namespace pc_preprocess
{

// The base of every exporter: writes points, handed over in batches by the caller, to a new file. Every point
// passes through `transform` on its way out.
class PCP_API Exporter
{
public:
    // Hands out the next points: fills the vector (which arrives empty) and returns true, or returns false
    // when there are no more. A call that returns false, or leaves the vector empty, ends the export.
    using BatchSource = std::function<bool(std::vector<ExportPoint>&)>;

    Exporter(const std::wstring& path, const geom::Matrix3d& transform);
    virtual ~Exporter();
    Exporter(const Exporter&) = delete;
    Exporter& operator=(const Exporter&) = delete;

    const std::wstring& path() const { return m_path; }
    const geom::Matrix3d& transform() const { return m_transform; }
    const SupportedAttributes& supportedAttributes() const { return m_supportedAttributes; }
    // Which attributes of the points carry information.
    void setSupportedAttributes(const SupportedAttributes& attributes) { m_supportedAttributes = attributes; }

    // Writes every point that nextBatch hands out and returns how many were written; throws with a complete
    // message when the file cannot be written. A failed export leaves the partial file.
    virtual uint64_t run(const BatchSource& nextBatch) = 0;

    // The most points asked for in one batch.
    static constexpr size_t kBatchSize = 65536;

protected:
    // Throws "<exporterName>: <path> already exists." when anything is at the path, and "<exporterName>:
    // <path> does not have extension <extension>." unless the name ends exactly in `extension`.
    void requireNewFile(const std::string& exporterName, const std::string& extension) const;

    std::wstring m_path;
    SupportedAttributes m_supportedAttributes;
    geom::Matrix3d m_transform;
};

}  // namespace pc_preprocess

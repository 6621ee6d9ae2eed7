#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "cachefiles/FileDescriptor.h"
#include "importers/las/LasFamilyImporter.h"
#include "core/Export.h"

namespace pc_preprocess
{

// Reads uncompressed LAS files, versions 1.0 to 1.4 with the point formats 0 to 10; a file is one scan. Its
// integers and its own scale and offset are the grid the probe proposes, so that a cache made from the file
// keeps its integers untouched. The coordinate system comes from the file's VLRs (see LaszVlr) as WKT.
//
// Colour and intensity are 16-bit numbers in every LAS format. A format without colour gets its intensity as
// grey. Points whose coordinates fall outside the cache's integer range are left out without a word; a header
// whose point count is larger than the file is read up to the last whole record.
class PCP_API Las : public LasFamilyImporter
{
public:
    // The colour mode must be kRgb16Bit, or kRgb8Bit for files that store 8-bit colour in the 16-bit fields,
    // which are then scaled up by 256 and fail above 255.
    Las(const std::wstring& path, double scale, const ColorMode& colorMode);
    // Out of line, so that a host that owns a Las directly needs none of its members' hidden code.
    ~Las() override;

    bool validTandSize() const override { return false; }
    SupportedAttributes getSupportedAttributes() override;
    // Reads header and VLRs. A file that does not open gives no point; a file that is no LAS file fails.
    void openGroup() override;
    void processBatch(std::vector<IoLightPoint>& batch, const Discretization& transfo, bool probing) override;
    void closeGroup() override;

private:
    // Takes the file's grid, record layout, the count of records it really holds and its coordinate system.
    void readHeader();
    // Reads exactly bytes.size() bytes, with a LAS error when the file cannot give them.
    void readAt(uint64_t offset, std::span<uint8_t> bytes) const;

    FileDescriptor m_file;
    // Room for one batch of records.
    std::vector<uint8_t> m_buffer;
    uint64_t m_pointDataPosition = 0;
    uint64_t m_pointRecordLength = 0;
    uint64_t m_rgbOffset = 0;  // 0: the format has no colour
    uint64_t m_classificationOffset = 0;
};

}  // namespace pc_preprocess

#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "importers/laz/LaszipHandle.h"
#include "importers/laz/LazFileCheck.h"
#include "importers/laz/LazFileStream.h"

struct laszip_header;
struct laszip_point;

namespace pc_preprocess::laz
{

// A LAS or LAZ file open for reading through LASzip, point by point. The constructor does what opening takes,
// each step with its own message: the LASzip handle ("LAZ error: Could not create reader."), the file ("LAZ
// error: Could not open std::ifstream."), the check of the sizes that LASzip would trust (see checkLazFile),
// the reader ("LAZ error: Could not create reader stream.", with LASzip's text or the damage found as the
// exception's reason) and the header and point pointers. Everything is released with the object.
class LazReader
{
public:
    explicit LazReader(const std::filesystem::path& file);
    ~LazReader();
    LazReader(const LazReader&) = delete;
    LazReader& operator=(const LazReader&) = delete;

    // LASzip's header and point: its own memory, valid while the reader is.
    const laszip_header& header() const { return *m_header; }
    const laszip_point& point() const { return *m_point; }
    bool isCompressed() const { return m_compressed != 0; }
    uint64_t fileSize() const { return m_stream.size(); }

    // Reads the next point into point(); false when LASzip fails or the point lies beyond the point data.
    bool readPoint();
    // Why the last readPoint failed.
    std::string readFailure() const;
    // The coordinate system that the file's VLRs give, as WKT; empty when they give none. Throws for a
    // malformed coordinate system record.
    std::string wkt() const;

    // Closes reader and handle, with a message for each failure.
    void close();

private:
    // The stream first: LASzip reads from it until the handle is gone.
    LazFileStream m_stream;
    LaszipHandle m_handle;
    LazFileLayout m_layout;
    int m_compressed = 0;
    laszip_header* m_header = nullptr;
    laszip_point* m_point = nullptr;
    uint64_t m_pointsRead = 0;
    bool m_beyondPointData = false;
};

}  // namespace pc_preprocess::laz

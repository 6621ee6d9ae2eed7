#include "cachefiles/SideFiles.h"

#include <cerrno>
#include <optional>
#include <stdexcept>

#include "cachefiles/MappedFile.h"
#include "cachefiles/NodeFileErrors.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

void requireLength(uint64_t size, uint64_t needed, const std::wstring& path, const std::string& errorPrefix)
{
    if (size < needed)
        throw std::runtime_error(errorPrefix + ": Side file " + ws2s(path) + " is shorter than its node.");
}

// The side file mapped, or nothing when it does not exist.
std::optional<MappedFile> mapIfPresent(const std::wstring& path, uint64_t needed,
                                       const std::string& errorPrefix)
{
    try
    {
        MappedFile file = MappedFile::openReadOnly(toPath(path));
        requireLength(file.bytes().size(), needed, path, errorPrefix);
        return file;
    }
    catch (const FileError& e)
    {
        if (e.errorNumber() == ENOENT)
            return std::nullopt;
        throw openFailure(errorPrefix, path);
    }
}

FileDescriptor openIfPresent(const std::wstring& path, uint64_t needed, const std::string& errorPrefix)
{
    try
    {
        FileDescriptor file = FileDescriptor::openForReading(toPath(path));
        requireLength(file.size(), needed, path, errorPrefix);
        return file;
    }
    catch (const FileError& e)
    {
        if (e.errorNumber() == ENOENT)
            return {};
        throw openFailure(errorPrefix, path);
    }
}

// Both side files of a node mapped whole, for the readers that take all points at once. errorPrefix is the
// reader's "ERROR PNT READER" or "ERROR PNZ READER".
class MappedSideFiles
{
public:
    MappedSideFiles(const std::wstring& node, uint64_t numPoints, const std::string& errorPrefix);

    void fill(uint64_t i, IoLightPoint& p) const { fillSideValues(m_classes, m_normals, i, p); }

private:
    MappedFile m_classFile;
    MappedFile m_normalFile;
    const uint8_t* m_classes = nullptr;
    const uint8_t* m_normals = nullptr;
};

MappedSideFiles::MappedSideFiles(const std::wstring& node, uint64_t numPoints, const std::string& errorPrefix)
{
    if (auto classes = mapIfPresent(getClassPathFromPnt(node), numPoints, errorPrefix))
    {
        m_classFile = std::move(*classes);
        m_classes = m_classFile.bytes().data();
    }
    if (auto normals = mapIfPresent(getNormalPathFromPnt(node), kNormalSize * numPoints, errorPrefix))
    {
        m_normalFile = std::move(*normals);
        m_normals = m_normalFile.bytes().data();
    }
}

}  // namespace

SideFileBlocks::SideFileBlocks(const std::wstring& node, uint64_t numPoints, uint64_t maxBlockPoints,
                               const std::string& errorPrefix)
    : m_classFile(openIfPresent(getClassPathFromPnt(node), numPoints, errorPrefix)),
      m_normalFile(openIfPresent(getNormalPathFromPnt(node), kNormalSize * numPoints, errorPrefix)),
      m_errorPrefix(errorPrefix)
{
    if (m_classFile.get() >= 0)
        m_classes.resize(maxBlockPoints);
    if (m_normalFile.get() >= 0)
        m_normals.resize(kNormalSize * maxBlockPoints);
}

void SideFileBlocks::read(uint64_t first, uint64_t count)
{
    try
    {
        if (m_classFile.get() >= 0)
            m_classFile.readExactly(first, {m_classes.data(), count});
        if (m_normalFile.get() >= 0)
            m_normalFile.readExactly(kNormalSize * first, {m_normals.data(), kNormalSize * count});
    }
    catch (const FileError& e)
    {
        throw std::runtime_error(m_errorPrefix + ": " + e.what());
    }
}

void decodeWithSideFiles(const std::wstring& nodePath, const NodeBytes& node, const std::string& errorPrefix,
                         std::vector<IoLightPoint>& points)
{
    const MappedSideFiles sides(nodePath, node.numPoints, errorPrefix);
    points.resize(node.numPoints);
    forEachPoint(node,
                 [&](uint64_t i, IoLightPoint& p)
                 {
                     sides.fill(i, p);
                     points[i] = p;
                 });
}

}  // namespace pc_preprocess

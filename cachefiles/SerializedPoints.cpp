#include "cachefiles/SerializedPoints.h"

#include <stdexcept>

#include "cachefiles/FileWriter.h"
#include "cachefiles/NodeCodec.h"
#include "cachefiles/NodeFileErrors.h"
#include "cachefiles/SideFiles.h"
#include "cachefiles/TreeNodeFiles.h"
#include "core/NodePaths.h"
#include "core/StringConversion.h"

namespace pc_preprocess
{

namespace
{

void writeBytes(std::ostream& stream, const std::vector<uint8_t>& bytes)
{
    stream.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void writeSideFile(const std::wstring& path, const std::vector<uint8_t>& bytes)
{
    reportWriteFailure("SerializedPoints: ", path, [&] { writeWholeFile(toPath(path), bytes); });
}

}  // namespace

void SerializedPoints::add(const std::vector<IoLightPoint>& points)
{
    // A batch grows each buffer once and is then encoded in place: this is the hot path of every import.
    const size_t count = points.size();
    const size_t recordsAt = m_buffer.size();
    m_buffer.resize(recordsAt + count * kPntRecordSize);
    uint8_t* record = m_buffer.data() + recordsAt;
    for (const IoLightPoint& p : points)
    {
        encodePntRecord(p, record);
        record += kPntRecordSize;
    }
    if (m_hasClasses)
    {
        const size_t classesAt = m_classes.size();
        m_classes.resize(classesAt + count);
        for (size_t i = 0; i < count; ++i)
            m_classes[classesAt + i] = points[i].classification;
    }
    if (m_hasNormals)
    {
        const size_t normalsAt = m_normals.size();
        m_normals.resize(normalsAt + count * kNormalSize);
        uint8_t* normal = m_normals.data() + normalsAt;
        for (const IoLightPoint& p : points)
        {
            encodeNormal(p, normal);
            normal += kNormalSize;
        }
    }
    m_numBuffered += count;
}

void SerializedPoints::add(const IoLightPoint& point)
{
    // Grown in place and encoded there: this runs for every point of every split.
    const size_t at = m_buffer.size();
    m_buffer.resize(at + kPntRecordSize);
    encodePntRecord(point, m_buffer.data() + at);
    if (m_hasClasses)
        m_classes.push_back(point.classification);
    if (m_hasNormals)
    {
        uint8_t normal[kNormalSize];
        encodeNormal(point, normal);
        m_normals.insert(m_normals.end(), normal, normal + kNormalSize);
    }
    ++m_numBuffered;
}

void SerializedPoints::flush(std::ostream& pnt, std::ostream& classes, std::ostream& normals)
{
    if (m_buffer.empty())
        return;
    writeBytes(pnt, m_buffer);
    writeBytes(classes, m_classes);
    writeBytes(normals, m_normals);
    empty();
}

uint64_t SerializedPoints::writeDirectPnz(const std::wstring& pnz, const IoTransfo& transfo)
{
    PnzCoder coder;
    return writeDirectPnz(pnz, transfo, coder);
}

uint64_t SerializedPoints::writeDirectPnz(const std::wstring& pnz, const IoTransfo& transfo, PnzCoder& coder)
{
    const uint64_t size = writePnzRecords(pnz, transfo, m_buffer, "SerializedPoints: ", coder);
    if (m_hasClasses)
        writeSideFile(getClassPathFromPnt(pnz), m_classes);
    if (m_hasNormals)
        writeSideFile(getNormalPathFromPnt(pnz), m_normals);
    empty();
    return size;
}

void SerializedPoints::writeHeader(std::ostream& pnt, const IoTransfo& transfo)
{
    if (pnt.tellp() != 0)
        throw std::runtime_error(
            "pc_preprocess::SerializedPoints: Header should be at the start of the file!");
    uint8_t header[kPntHeaderSize];
    encodePntHeader(transfo, header);
    pnt.write(reinterpret_cast<const char*>(header), kPntHeaderSize);
}

void SerializedPoints::clear()
{
    if (m_numBuffered != 0)
        throw std::runtime_error("pc_preprocess::SerializedPoints: m_buffer still contains unwritten data.");
    std::vector<uint8_t>().swap(m_buffer);
    std::vector<uint8_t>().swap(m_classes);
    std::vector<uint8_t>().swap(m_normals);
}

void SerializedPoints::empty()
{
    m_buffer.clear();
    m_classes.clear();
    m_normals.clear();
    m_numBuffered = 0;
}

}  // namespace pc_preprocess

// pcprep export of an HSPC data set: the points of a query (the whole data set, a box, a level of detail) out
// to a PTS or LAZ file. The query runs on its own thread and hands node after node to the exporter, which
// pulls them in batches; a bounded queue between the two keeps memory flat whatever the data set's size.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "core/ExportPoint.h"
#include "core/FileSizeString.h"
#include "core/StringConversion.h"
#include "exporters/LazExporter.h"
#include "exporters/PtsExporter.h"
#include "geom/Matrix3d.h"
#include "hspc/format/ConcurrentQueue.h"
#include "hspc/query/QueryExecutor.h"
#include "importers/hspc/HspcRoleLayout.h"
#include "importers/hspc/HspcValues.h"
#include "pcprep/ArgumentParser.h"
#include "pcprep/Command.h"
#include "pcprep/HspcDataSet.h"
#include "pcprep/InterruptWatch.h"
#include "pcprep/ProgressDisplay.h"

namespace pcprep
{

namespace
{

namespace fs = std::filesystem;
using pc_preprocess::ExportPoint;

constexpr uint8_t kPositionType = HSPC::AttributeType::F64;
// Decoded nodes waiting for the exporter; a node holds at most a few megabytes of records.
constexpr size_t kQueuedNodes = 8;

// Nodes from the query's thread to the exporter's. The query takes a free slot before it queues a node, and
// the exporter gives the slot back once it has taken the node: at most kQueuedNodes wait.
class NodeQueue
{
public:
    NodeQueue()
    {
        for (size_t slot = 0; slot < kQueuedNodes; ++slot)
            m_slots.push(0);
    }

    // False once the exporter gave up: the query then stops.
    bool push(const HSPC::QueryNodeRecords& node)
    {
        if (m_abandoned || !m_slots.pop())
            return false;
        m_nodes.push({node.pointCount, std::vector<uint8_t>(node.records.begin(), node.records.end())});
        return !m_abandoned;
    }
    // The query has ended: the exporter takes what is queued and then stops.
    void finish() { m_nodes.close(); }
    void abandon()
    {
        m_abandoned = true;
        m_slots.close();
    }
    // The next node's records; false when the query has ended and every node was taken.
    bool pop(std::vector<uint8_t>& records, uint64_t& pointCount)
    {
        std::optional<std::pair<uint64_t, std::vector<uint8_t>>> node = m_nodes.pop();
        if (!node)
            return false;
        pointCount = node->first;
        records = std::move(node->second);
        m_slots.push(0);
        return true;
    }

private:
    HSPC::ConcurrentQueue<std::pair<uint64_t, std::vector<uint8_t>>> m_nodes;
    HSPC::ConcurrentQueue<char> m_slots;
    std::atomic<bool> m_abandoned = false;
};

std::array<double, 6> parseBox(const std::string& text)
{
    std::array<double, 6> box{};
    std::istringstream in(text);
    for (size_t i = 0; i < box.size(); ++i)
    {
        char comma = ',';
        if (!(in >> box[i]) || (i + 1 < box.size() && !(in >> comma)) || comma != ',')
            throw UsageError("--box takes six numbers x0,y0,z0,x1,y1,z1, not " + text);
    }
    std::string rest;
    if (in >> rest)
        throw UsageError("--box takes six numbers x0,y0,z0,x1,y1,z1, not " + text);
    for (int axis = 0; axis < 3; ++axis)
        if (!(box[axis] <= box[axis + 3]))
            throw UsageError("--box: each lower corner value must not be above the upper one: " + text);
    return box;
}

// The first message of the query's loggers, for the one error pcprep reports.
struct FirstMessage
{
    std::mutex mutex;
    std::string text;
    HSPC::LogFunction log()
    {
        return [this](const std::string& message)
        {
            std::lock_guard lock(mutex);
            if (text.empty())
                text = message;
        };
    }
};

// Hands the exporter the points of the queued nodes, at most one node and one batch at a time.
class PointSource
{
public:
    PointSource(NodeQueue& queue, const pc_preprocess::HspcRoleLayout& layout, std::function<void()> onBatch)
        : m_queue(queue), m_layout(layout), m_scaling(m_layout), m_onBatch(std::move(onBatch))
    {
    }

    bool next(std::vector<ExportPoint>& batch)
    {
        batch.clear();
        m_onBatch();
        while (m_position == m_points)
        {
            if (!m_queue.pop(m_records, m_points))
                return false;
            m_position = 0;
            // The first node is the coarsest one the query reaches: a sample of the whole box.
            if (!m_scaling.isFixed())
                m_scaling.fix(m_records.data(), std::min<uint64_t>(m_points, 65536));
        }
        const uint64_t end = std::min<uint64_t>(m_points, m_position + 65536);
        for (; m_position < end; ++m_position)
        {
            const pc_preprocess::HspcPointValues values =
                pc_preprocess::readHspcPoint(m_records.data() + m_position * m_layout.recordSize, m_layout, m_scaling);
            ExportPoint point;
            point.position = {values.position[0], values.position[1], values.position[2]};
            point.radius = values.radius;
            point.r = values.r;
            point.g = values.g;
            point.b = values.b;
            point.intensity = values.intensity;
            point.classification = m_layout.classification ? values.classification : -1;
            point.scanId = m_layout.scanId ? values.scanId : -1;
            point.normal = {values.normal[0], values.normal[1], values.normal[2]};
            batch.push_back(point);
        }
        return true;
    }

private:
    NodeQueue& m_queue;
    const pc_preprocess::HspcRoleLayout& m_layout;
    pc_preprocess::HspcColorScaling m_scaling;
    std::function<void()> m_onBatch;
    std::vector<uint8_t> m_records;
    uint64_t m_points = 0;
    uint64_t m_position = 0;
};

std::unique_ptr<pc_preprocess::Exporter> exporterFor(const fs::path& target, const HSPC::DataSetInfo& info)
{
    const std::wstring wide = pc_preprocess::toWide(target);
    if (target.extension() == ".laz")
    {
        // The LAZ file keeps the data set's grid, so that its integers are the data set's cells.
        pc_preprocess::IoTransfo grid;
        grid.offset = info.origin;
        grid.scale = info.scale;
        return std::make_unique<pc_preprocess::LazExporter>(wide, geom::Matrix3d::identity(), grid);
    }
    if (target.extension() == ".pts")
        return std::make_unique<pc_preprocess::PtsExporter>(wide, geom::Matrix3d::identity());
    throw UsageError("a data set exports to OUT.pts or OUT.laz, not " + target.string());
}

}  // namespace

int exportHspcDataSet(const fs::path& source, const fs::path& target, const ParsedArguments& parsed)
{
    if (parsed.has("--depth"))
        throw UsageError("--depth is for a cache; a data set takes --lod");
    HspcDataSet dataSet = openHspcDataSet(source);
    std::mutex readerMutex;
    FirstMessage errors;
    HSPC::QueryConfig config;
    config.path = source.string();
    config.readBlob = [&](const std::string& name, std::vector<uint8_t>& bytes)
    {
        std::lock_guard lock(readerMutex);
        bytes.clear();
        return dataSet.reader->read(name, bytes);
    };
    config.workerCount = parsed.threadCount();
    config.infoLogger = [](const std::string&) {};
    config.warningLogger = errors.log();
    config.errorLogger = errors.log();
    std::atomic<uint64_t> nodesDone = 0;
    std::atomic<uint64_t> nodesPlanned = 0;
    config.progress = [&](uint64_t done, uint64_t planned)
    {
        nodesDone = done;
        nodesPlanned = planned;
    };
    const InterruptWatch interrupt;
    config.cancelRequested = [&interrupt] { return interrupt.requested(); };

    HSPC::QueryExecutor executor;
    HSPC::DataSetInfo info;
    if (!HSPC::openQueryExecutor(executor, config, false) || !executor.getInfo(kPositionType, info))
        throw std::runtime_error("cannot query " + source.string() + ": " + errors.text);
    HSPC::QueryRequest request;
    if (parsed.has("--box"))
        request.box = parseBox(parsed.text("--box", ""));
    if (parsed.has("--lod"))
    {
        const uint64_t lod = parsed.number("--lod", 0);
        if (lod < info.minLod || lod > info.maxLod)
            throw UsageError("--lod: the data set " + source.string() + " has the lods " +
                             std::to_string(info.minLod) + " to " + std::to_string(info.maxLod));
        request.minLod = static_cast<uint8_t>(lod);
    }
    const pc_preprocess::HspcRoleLayout layout = pc_preprocess::mapHspcRoles(info.attributes, kPositionType);
    if (!executor.updateAttributeLayout(layout.attributes))
        throw std::runtime_error("cannot query " + source.string() + ": " + errors.text);

    std::unique_ptr<pc_preprocess::Exporter> exporter = exporterFor(target, info);
    pc_preprocess::SupportedAttributes attributes;
    attributes.color = layout.hasColor();
    attributes.intensity = layout.intensity.has_value();
    attributes.normals = layout.hasNormals();
    attributes.classification = layout.classification.has_value();
    attributes.scanId = layout.scanId.has_value();
    attributes.radius = layout.pointSize.has_value();
    exporter->setSupportedAttributes(attributes);

    NodeQueue queue;
    bool queried = false;
    std::thread query(
        [&]
        {
            queried = executor.query(request, [&queue](const HSPC::QueryNodeRecords& node) { return queue.push(node); });
            queue.finish();
        });
    ProgressDisplay display{fs::path()};
    PointSource points(queue, layout,
                       [&]
                       {
                           const uint64_t planned = nodesPlanned;
                           if (planned > 0)
                               display.update(std::to_string(std::min<uint64_t>(100, nodesDone * 100 / planned)));
                       });
    uint64_t written = 0;
    try
    {
        written = exporter->run([&points](std::vector<ExportPoint>& batch) { return points.next(batch); });
    }
    catch (...)
    {
        queue.abandon();
        query.join();
        throw;
    }
    query.join();
    display.finish();
    if (!queried)
    {
        // What was written is not the query's answer: no half file stays behind.
        exporter.reset();
        std::error_code ignored;
        fs::remove(target, ignored);
        if (interrupt.requested())
        {
            std::printf("Cancelled: %s was not written\n", target.string().c_str());
            return 130;
        }
        throw std::runtime_error("the query of " + source.string() + " failed: " + errors.text);
    }
    std::printf("Wrote %llu points of the data set %s to %s (%s)\n", static_cast<unsigned long long>(written),
                source.string().c_str(), target.string().c_str(),
                pc_preprocess::getFileSizePrettyString(fs::file_size(target)).c_str());
    return 0;
}

}  // namespace pcprep

#include "hspc/query/QueryExecutor.h"

#include <cstdio>
#include <limits>
#include <mutex>

#include "hspc/format/MortonNodeBox.h"
#include "hspc/format/NodeBlobName.h"
#include "hspc/query/QueryBlobSource.h"
#include "hspc/query/QueryExecutorPrivate.h"
#include "hspc/query/QueryTreeLoading.h"
#include "hspc/tree/SerializeTree.h"
#include "hspc/tree/TreeGeometry.h"

namespace HSPC
{
namespace
{

constexpr uint32_t kInputThreads = 3;
constexpr uint32_t kWriteThreads = 3;
constexpr uint32_t kDefaultWorkers = 10;
// Below this version a data set did not store its largest node; readers derive it from the node size.
constexpr uint32_t kFirstVersionWithMaxNodeSize = 12;

bool loggersAreSet(const QueryConfig& config)
{
    if (!config.errorLogger)
    {
        std::fputs("initializeQueryExecutor: error: error logger is not set.\n", stderr);
        return false;
    }
    if (!config.infoLogger)
    {
        config.errorLogger("initializeQueryExecutor: error: info logger is not set.");
        return false;
    }
    if (!config.warningLogger)
    {
        config.errorLogger("initializeQueryExecutor: error: warning logger is not set.");
        return false;
    }
    return true;
}

uint32_t derivedMaxNodeSize(const TreeHeader& header)
{
    if (header.formatVersion >= kFirstVersionWithMaxNodeSize)
    {
        return header.maxNodeSize;
    }
    return header.nodeSize + 1 + 8 * uint32_t(double(header.nodeSize) * 0.2);
}

// The size of the record `requested` describes, counting a POSITION as the three axes or the code it stands
// for: what the actions must fill.
uint32_t describedRecordSize(const std::vector<Attribute>& requested)
{
    uint32_t size = 0;
    for (const Attribute& attribute : requested)
    {
        const bool axes = attribute.role == AttributeRole::POSITION && !isMortonType(attribute.type);
        size += typeSize(attribute.type) * (axes ? 3 : 1);
    }
    return size;
}

}  // namespace

uint64_t queryMemoryBudget(uint64_t memoryLimit)
{
    if (memoryLimit == 0)
    {
        return std::numeric_limits<uint64_t>::max();
    }
    // Two thirds without overflow for limits near the largest value.
    return memoryLimit / 3 * 2 + memoryLimit % 3 * 2 / 3;
}

QueryNodePlace QueryExecutorPrivate::placeOf(uint32_t nodeIndex) const
{
    return {nodeIndex, lods[nodeIndex], corners[nodeIndex], tree.nodes[nodeIndex].pointCount,
            form == TreeForm::kFull};
}

std::string QueryExecutorPrivate::blobNameOf(uint32_t nodeIndex) const
{
    const std::array<uint64_t, 3>& corner = corners[nodeIndex];
    return nodeBlobName(lods[nodeIndex], corner[0], corner[1], corner[2]);
}

std::array<double, 6> QueryExecutorPrivate::realBoxOf(uint32_t nodeIndex, const std::array<uint64_t, 3>& min,
                                                      const std::array<uint64_t, 3>& max) const
{
    const uint32_t version = tree.header.formatVersion;
    const unsigned lod = lods[nodeIndex];
    const std::array<uint64_t, 3>& corner = corners[nodeIndex];
    if (grid.storedPositionType == AttributeType::M192)
    {
        return nodeRealBox<uint64_t>(version, lod, grid.origin, grid.scale, corner, min, max);
    }
    const auto narrow = [](const std::array<uint64_t, 3>& v)
    { return std::array<uint32_t, 3>{uint32_t(v[0]), uint32_t(v[1]), uint32_t(v[2])}; };
    return nodeRealBox<uint32_t>(version, lod, grid.origin, grid.scale, narrow(corner), narrow(min), narrow(max));
}

QueryLayout QueryExecutorPrivate::currentLayout() const
{
    std::shared_lock lock(layoutMutex_);
    return layout_;
}

void QueryExecutorPrivate::setLayout(QueryLayout layout)
{
    std::unique_lock lock(layoutMutex_);
    layout_ = std::move(layout);
}

QueryExecutor::QueryExecutor() : d(std::make_shared<QueryExecutorPrivate>()) {}

QueryExecutor::~QueryExecutor() = default;

bool QueryExecutor::initializeQueryExecutor(const QueryConfig& config, std::span<const uint8_t> treeBytes,
                                            bool passive)
{
    if (!loggersAreSet(config))
    {
        return false;
    }
    auto loaded = std::make_shared<QueryExecutorPrivate>();
    QueryExecutorPrivate& p = *loaded;
    p.configuration = config;
    p.info = config.infoLogger;
    p.warning = config.warningLogger;
    p.error = config.errorLogger;
    if (!loadQueryTree(treeBytes, p.tree, p.form, p.error))
    {
        p.error("QueryExecutor: failed to load tree.");
        return false;
    }
    std::string sourceError;
    p.readBlob = makeBlobSource(config, sourceError);
    if (!p.readBlob)
    {
        p.error(sourceError);
        return false;
    }
    p.lods = nodeLods(p.tree);
    p.corners = nodeCorners(p.tree);
    p.grid = {p.storedAttributes().front().type, p.tree.header.origin, p.tree.header.scale};
    p.setLayout(storedLayout(p.storedAttributes()));
    p.settings = {kInputThreads, config.workerCount == 0 ? kDefaultWorkers : config.workerCount, kWriteThreads,
                  queryMemoryBudget(config.memoryLimit), config.cacheSize};
    if (!passive)
    {
        const QueryLayout layout = p.currentLayout();
        p.handler = std::make_unique<QueryDataHandler>(p.settings, p.readBlob, p.error, layout.attributes,
                                                       layout.recordSize);
    }
    p.initialized = true;
    d = std::move(loaded);
    return true;
}

bool QueryExecutor::isInitialized() const
{
    return d->initialized;
}

bool QueryExecutor::getInfo(uint8_t positionType, DataSetInfo& info) const
{
    if (!d->initialized)
    {
        return false;
    }
    const Tree& tree = d->tree;
    const TreeHeader& header = tree.header;
    DataSetInfo result;
    uint32_t outputSize = 0;
    if (!positionTypeFits(positionType, d->grid.storedPositionType) ||
        !generateAttributeFormat(positionType, d->storedAttributes(), result.attributes, outputSize))
    {
        d->error(" QueryExecutor::getInfo: could not get data set info, most likely position type incompatible.");
        return false;
    }
    result.origin = header.origin;
    result.scale = header.scale;
    result.center = tree.center;
    result.boxMin = header.boxMin;
    result.boxMax = header.boxMax;
    result.minLod = header.minLod;
    result.maxLod = header.maxLod;
    result.requestedPositionType = positionType;
    result.storedPositionType = d->grid.storedPositionType;
    result.outputRecordSize = outputSize;
    result.storedRecordSize = HSPC::recordSize(d->storedAttributes());
    result.pointCount = header.pointCount;
    result.nodeSize = header.nodeSize;
    result.maxNodeSize = derivedMaxNodeSize(header);
    result.formatVersion = header.formatVersion;
    result.timeStamp = header.timeStamp;
    result.comment = header.comment;
    result.lodNodeCounts = tree.lodNodeCounts;
    result.lodPointCounts.assign(tree.lodNodeCounts.size(), 0);
    for (size_t i = 0; i < tree.nodes.size(); ++i)
    {
        result.lodPointCounts[header.maxLod - d->lods[i]] += tree.nodes[i].pointCount;
    }
    info = std::move(result);
    return true;
}

bool QueryExecutor::updateAttributeLayout(const std::vector<Attribute>& requested)
{
    if (!d->initialized)
    {
        reportTo(d->configuration.errorLogger, " QueryExecutor::updateAttributeLayout: error : no data set is open.");
        return false;
    }
    if (requested.empty())
    {
        d->error("Process handler : error : empty attribute layout.");
        return false;
    }
    QueryLayout layout;
    std::string error;
    if (!computeActions(requested, d->storedAttributes(), layout, error))
    {
        d->error(error);
        return false;
    }
    std::vector<Attribute> generated;
    uint32_t generatedSize = 0;
    if (!generateAttributeFormat(layout.positionType, d->storedAttributes(), generated, generatedSize))
    {
        d->error(" QueryExecutor:: error : could not generate output format.");
        return false;
    }
    if (describedRecordSize(requested) != layout.recordSize)
    {
        d->error(" QueryExecutor:: error : point size mismatch.");
        return false;
    }
    if (d->handler && !d->handler->changeLayout(layout.attributes, layout.recordSize))
    {
        d->error(" QueryExecutor::updateAttributeLayout: error : node reads are still queued; the layout is "
                 "unchanged.");
        return false;
    }
    d->setLayout(std::move(layout));
    return true;
}

std::vector<Attribute> QueryExecutor::attributeLayout() const
{
    return d->currentLayout().attributes;
}

uint32_t QueryExecutor::recordSize() const
{
    return d->currentLayout().recordSize;
}

const Tree& QueryExecutor::tree() const
{
    return d->tree;
}

bool QueryExecutor::readNode(uint32_t nodeIndex, std::vector<uint8_t>& records, uint64_t& pointCount,
                             std::string& error)
{
    if (!d->initialized || nodeIndex >= d->tree.nodes.size())
    {
        error = d->initialized ? "QueryExecutor::readNode: the tree has no node " + std::to_string(nodeIndex)
                               : std::string("QueryExecutor::readNode: no data set is open.");
        return false;
    }
    records.clear();
    pointCount = 0;
    // A node without points has no block.
    if (d->tree.nodes[nodeIndex].pointCount == 0 && d->form == TreeForm::kFull)
    {
        return true;
    }
    std::vector<uint8_t> block;
    const std::string name = d->blobNameOf(nodeIndex);
    if (!d->readBlob(name, block))
    {
        error = "QueryExecutor::readNode: cannot read " + name;
        return false;
    }
    // Each call decodes with its own buffers, so that any number of threads may read at once.
    QueryNodeDecoder decoder;
    DecodedNode decoded;
    if (!decoder.decode(block, d->placeOf(nodeIndex), d->currentLayout(), d->grid, std::nullopt, records, decoded,
                        error))
    {
        error = "QueryExecutor::readNode: " + error;
        return false;
    }
    pointCount = decoded.pointCount;
    return true;
}

bool QueryExecutor::query(const QueryRequest& request, const QueryRecordSink& sink)
{
    return d->runQuery(request, &sink, nullptr);
}

bool QueryExecutor::query(const QueryRequest& request, RootWriter& writer)
{
    return d->runQuery(request, nullptr, &writer);
}

size_t QueryExecutor::queuedReads() const
{
    return d->handler ? d->handler->queuedReads() : 0;
}

uint64_t QueryExecutor::memoryBudget() const
{
    return d->settings.memoryBudget;
}

bool openQueryExecutor(QueryExecutor& executor, const QueryConfig& config, bool passive)
{
    std::string error;
    const BlobReadFunction readBlob = makeBlobSource(config, error);
    std::vector<uint8_t> bytes;
    if (!readBlob)
    {
        reportTo(config.errorLogger, error);
        return false;
    }
    if (!readBlob(kQueryTreeName, bytes))
    {
        reportTo(config.errorLogger, std::string("QueryExecutor: cannot read ") + kQueryTreeName + " of " +
                                         (config.path.empty() ? std::string("the data set") : config.path) + ".");
        return false;
    }
    return executor.initializeQueryExecutor(config, bytes, passive);
}

}  // namespace HSPC

// The records a caller fills to drive the HSPC engine. All are plain values handed in by copy; a zero or
// empty field means "compute a default" unless its comment says otherwise, and every callback may be left
// empty except where a default is given.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "hspc/format/Attribute.h"
#include "hspc/format/JsonInfo.h"
#include "hspc/format/Loggers.h"

namespace HSPC
{

// Named blob store that a data set is written into (folder, pack archive or client callbacks); declared
// here so that configurations can carry factories without depending on the output layer.
class RootWriter;
using RootWriterFactory = std::function<std::shared_ptr<RootWriter>()>;
using RootWriterPathFactory = std::function<std::shared_ptr<RootWriter>(const std::string& path)>;

// Per-point and per-buffer transformations of real-space positions (x, y, z triples).
using PointTransformation = std::function<void(double* xyz)>;
using BufferTransformation = std::function<void(double* xyz, std::size_t pointCount)>;

// Where and what to convert.
struct BasicConfig
{
    // The attributes of a point as the input delivers them; the first one is the position (a Morton code, or
    // X, Y, Z as the first three).
    std::vector<Attribute> attributes;
    // Real position = integer position * scale + origin, per axis. Each scale must be positive.
    std::array<double, 3> origin{};
    std::array<double, 3> scale{};
    // UTF-8 folders.
    std::string outputPath;
    std::string tempPath;
};

// How to convert: threads, memory, reporting and custom output.
struct AdvancedConfig
{
    // Hardware threads left to the application; 0 means 3.
    uint32_t reservedThreads = 0;
    // Forces the size of every worker pool; 0 derives it from the hardware.
    uint32_t workerCount = 0;
    // Set to 1 by the exporter; it does not change what is written.
    uint32_t thirdThreadCount = 0;
    // Bytes of one conversion batch; 0 derives it from the memory budget.
    uint64_t batchSize = 0;
    // Memory budget of a conversion; 0 means 10 GiB.
    uint64_t targetMemory = 0;
    // Bytes of each worker's share of the budget that a batch leaves free.
    uint64_t memoryOffset = 0;
    // Position type to encode when the input attributes bring X, Y, Z instead of a Morton code.
    uint8_t positionType = AttributeType::M96;

    LogFunction infoLogger = printInfo;
    LogFunction warningLogger = printWarning;
    LogFunction errorLogger = printError;
    ProgressFunction progressLogger = printProgress;

    // Custom output: a writer, or a writer for a given path.
    RootWriterFactory outputWriterFactory;
    RootWriterPathFactory outputWriterByPath;
    // Write the whole data set into one pack archive; archiveWriterFactory supplies the archive writer.
    bool useArchive = false;
    std::string treeName = "tree";
    RootWriterFactory archiveWriterFactory;
};

// How points are encoded.
struct PointCloudEncodingConfig
{
    // Points aimed at per node, 1 to 0x800000, and the most a node may hold, at most 0x800000.
    uint32_t nodeSize = 0x40000;
    uint32_t maxNodeSize = 0x49C40;
    // Drop points that fall into the same integer cell as the one before them.
    bool filterDuplicates = true;
    // Keep only points inside the box; each max must exceed its min.
    bool filterEnabled = false;
    std::array<double, 3> filterMin{};
    std::array<double, 3> filterMax{};
    // A further value of the filter record that no filter of this engine reads; carried so that a caller
    // filling the whole record keeps it.
    double filterParameter = 0.0;
    // Compress each sorted batch before it is spilled to a temporary file (kept only when that pays off):
    // less disk for much more processor time, as batches are compressed hard.
    bool compressBatches = false;
    // Bytes the importers will deliver in all, 0 when unknown. Small inputs get batches small enough that
    // every worker has one.
    uint64_t expectedInputSize = 0;
    // Data sets to merge into the output. No longer supported: a conversion given any fails and asks for an
    // importer of the data set instead.
    std::vector<std::string> inputTreeArray;
    // Client JSON: meta data and the statistics asked for ("attribute-description").
    std::function<JsonInfo()> requestJsonConfig = [] { return JsonInfo(); };
    std::vector<EncodingAttribute> encodingAttributes;
    // At most one of the two may be set.
    PointTransformation transformation;
    BufferTransformation transformAll;
};

// Reading a data set back.
struct QueryConfig
{
    std::string path;
    std::string secondPath;
    // Threads; 0 means 10.
    uint32_t workerCount = 0;
    // 0 means no limit; two thirds of it bound the read pipeline.
    uint64_t memoryLimit = 0;
    uint64_t cacheSize = 0;

    // Reads the blob `name` of the data set (a node block or a tree file, "/..." as stored) into `bytes`
    // when the data set lives behind the host's store; empty reads from `path`. Called from several threads
    // at once. False for a blob that is missing or could not be read whole.
    std::function<bool(const std::string& name, std::vector<uint8_t>& bytes)> readBlob;
    // After a query has delivered or written one node: its index in the tree and the points it kept.
    // Called from one thread at a time per query.
    std::function<void(uint32_t nodeIndex, uint64_t pointCount)> nodeWritten;
    // Nodes of a query finished so far and the nodes it will read in all (the total grows as the walk
    // descends).
    std::function<void(uint64_t nodesDone, uint64_t nodesPlanned)> progress;
    // Asked by a running query before each node it hands on; true ends the query, which then returns false.
    std::function<bool()> cancelRequested;

    LogFunction infoLogger = printQueryInfo;
    LogFunction warningLogger = printQueryWarning;
    LogFunction errorLogger = printQueryError;
};

// Importing a data set as input of another conversion.
struct ImporterConfig
{
    // A data set folder, one of its tree files, or a pack archive.
    std::string path;
    // Called after every batch with the points read so far.
    std::function<void(uint64_t pointCount)> progress;
    // What converted records must look like: the encoding attributes, first the position as an M96 code, and
    // the integer grid the position is put on. Empty attributes stand for the data set's own attributes and
    // grid, so that a data set converted again keeps its points on their cells.
    std::vector<EncodingAttribute> encodingAttributes;
    std::array<double, 3> origin{};
    std::array<double, 3> scale{};
    // Moves real positions before they go onto the target grid (at most one of the two), e.g. a tile brought
    // into the frame of a survey. A data set read with one is never taken over unsorted.
    PointTransformation transformation;
    BufferTransformation transformAll;

    LogFunction infoLogger = printInfo;
    LogFunction warningLogger = printWarning;
    LogFunction errorLogger = printError;
};

}  // namespace HSPC

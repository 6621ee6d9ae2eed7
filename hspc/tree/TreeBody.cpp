#include "hspc/tree/TreeBody.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "hspc/format/LittleEndian.h"
#include "hspc/format/ZstdFrame.h"
#include "hspc/tree/Chunk.h"

namespace HSPC
{
namespace
{

constexpr char kReducedTag[5] = "APRR";
constexpr char kFullTag[5] = "APRF";
constexpr int kBodyLevel = 1;
// The deepest lod a Morton code of 64 bits per axis has: the whole space.
constexpr unsigned kLargestLod = 64;

// Versions from which the body changes its form.
constexpr uint32_t kFirstVersionWithBody = 4;
constexpr uint32_t kFirstVersionWithPointSections = 9;
constexpr uint32_t kFirstVersionWithOwnDensities = 11;
constexpr uint32_t kFirstVersionWithCompressedBody = 11;
constexpr uint32_t kFirstVersionWithInclusiveFullBoxes = 12;
constexpr uint32_t kFirstVersionWithTightReducedBoxes = 18;

// The density that versions 9 and 10 meant for every node, whatever their byte says; older versions did
// not store one and count each node at the same share of the density base.
constexpr uint8_t kFixedOldDensity = 99;
constexpr double kOldShareOfDensityBase = 0.38823529411764707;

constexpr size_t kOldBoxBytes = 8;
constexpr size_t kOldBoxStepsAt = 2;

using little_endian::append;

// The largest value inside a node at `lod`: 2^lod - 1.
uint64_t largestInNode(unsigned lod)
{
    return lod >= kLargestLod ? std::numeric_limits<uint64_t>::max() : (uint64_t(1) << lod) - 1;
}

uint64_t saturatingIncrement(uint64_t value)
{
    return value == std::numeric_limits<uint64_t>::max() ? value : value + 1;
}

// Bytes each node takes in the body of this form and version.
size_t bytesPerNode(TreeForm form, uint32_t version)
{
    if (version < kFirstVersionWithPointSections)
    {
        return 1 + kOldBoxBytes;
    }
    return form == TreeForm::kReduced ? 1 + 1 + 2 + 6 + 4 : 1 + 4 + 2 + 48 + 4;
}

void appendReducedBox(std::vector<uint8_t>& body, const TreeNode& node, unsigned lod)
{
    if (!hasValidBox(node))
    {
        body.insert(body.end(), {0, 0, 0, 255, 255, 255});
        return;
    }
    for (const uint64_t value : node.min)
    {
        body.push_back(boxStepOf(value, lod));
    }
    for (const uint64_t value : node.max)
    {
        body.push_back(boxStepOf(value, lod));
    }
}

// The lod of every node, from the per-lod counts.
template <typename Visit>
void forEachNodeLod(const Tree& tree, Visit&& visit)
{
    size_t index = 0;
    unsigned lod = tree.header.maxLod;
    for (const uint64_t count : tree.lodNodeCounts)
    {
        for (uint64_t i = 0; i < count; ++i)
        {
            visit(index++, lod);
        }
        --lod;
    }
}

void readReducedBox(std::span<const uint8_t> steps, unsigned lod, uint32_t version, TreeNode& node)
{
    const unsigned maxStepOffset = version >= kFirstVersionWithTightReducedBoxes ? 1 : 2;
    for (unsigned axis = 0; axis < 3; ++axis)
    {
        node.min[axis] = boxValueOf(steps[axis], lod);
        node.max[axis] = boxValueOf(steps[3 + axis] + maxStepOffset, lod);
    }
}

// The sections from the points on, in the layout of version 9 and later.
void readPointSections(FieldReader& reader, TreeForm form, uint32_t version, Tree& tree)
{
    const uint32_t base = tree.header.densityBase;
    for (TreeNode& node : tree.nodes)
    {
        if (form == TreeForm::kFull)
        {
            node.pointCount = reader.read<uint32_t>();
            continue;
        }
        const uint8_t stored = reader.read<uint8_t>();
        node.pointCount = countOfDensity(version < kFirstVersionWithOwnDensities ? kFixedOldDensity : stored, base);
    }
    reader.readBytes(2 * tree.nodes.size());  // reserved
    forEachNodeLod(tree,
                   [&](size_t index, unsigned lod)
                   {
                       TreeNode& node = tree.nodes[index];
                       if (form == TreeForm::kReduced)
                       {
                           const std::span<const uint8_t> box = reader.readBytes(6);
                           if (reader.ok())
                           {
                               readReducedBox(box, lod, version, node);
                           }
                           return;
                       }
                       for (uint64_t& value : node.min)
                       {
                           value = reader.read<uint64_t>();
                       }
                       for (uint64_t& value : node.max)
                       {
                           value = reader.read<uint64_t>();
                           if (version < kFirstVersionWithInclusiveFullBoxes)
                           {
                               value = std::min(saturatingIncrement(value), largestInNode(lod));
                           }
                       }
                   });
    for (TreeNode& node : tree.nodes)
    {
        node.link = reader.read<uint32_t>();
    }
}

bool parseBody(std::span<const uint8_t> body, TreeForm form, uint32_t version, Tree& tree, std::string& error)
{
    const TreeHeader& header = tree.header;
    if (header.maxLod > kLargestLod)
    {
        error = "max-lod " + std::to_string(header.maxLod) + " lies beyond the deepest lod, 64";
        return false;
    }
    FieldReader reader(body);
    const size_t lodCount = header.maxLod >= header.minLod ? header.maxLod - header.minLod + 1 : 0;
    const size_t perNode = bytesPerNode(form, version);
    tree.lodNodeCounts.clear();
    tree.nodes.clear();
    uint64_t nodeCount = 0;
    if (!reader.canHold(lodCount, sizeof(uint64_t)))
    {
        error = "the tree body ends inside its node counts";
        return false;
    }
    // Nodes the bytes behind the counts can hold: no count may claim more.
    const uint64_t room = (reader.remaining() - lodCount * sizeof(uint64_t)) / perNode;
    for (size_t i = 0; i < lodCount; ++i)
    {
        const uint64_t count = reader.read<uint64_t>();
        if (count > room || nodeCount > room - count)
        {
            error = "the tree body counts more nodes than its " + std::to_string(body.size()) + " bytes hold";
            return false;
        }
        nodeCount += count;
        tree.lodNodeCounts.push_back(count);
    }
    if (nodeCount > std::numeric_limits<uint32_t>::max())
    {
        error = "the tree body counts more nodes than a tree may have";
        return false;
    }
    tree.nodes.resize(size_t(nodeCount));
    for (TreeNode& node : tree.nodes)
    {
        node.childMask = reader.read<uint8_t>();
    }
    if (version < kFirstVersionWithPointSections)
    {
        const uint32_t base = header.densityBase;
        const uint32_t oldCount = uint32_t(std::min<double>(base, std::trunc(base * kOldShareOfDensityBase)));
        forEachNodeLod(tree,
                       [&](size_t index, unsigned lod)
                       {
                           const std::span<const uint8_t> box = reader.readBytes(kOldBoxBytes);
                           tree.nodes[index].pointCount = oldCount;
                           if (reader.ok())
                           {
                               readReducedBox(box.subspan(kOldBoxStepsAt), lod, version, tree.nodes[index]);
                           }
                       });
    }
    else
    {
        readPointSections(reader, form, version, tree);
    }
    if (!reader.ok())
    {
        error = "the tree body ends inside its nodes";
        return false;
    }
    if (reader.remaining() != 0)
    {
        error = "the tree body holds " + std::to_string(reader.remaining()) + " bytes more than its nodes";
        return false;
    }
    return true;
}

}  // namespace

uint8_t densityOf(uint32_t count, uint32_t densityBase)
{
    if (count == 0)
    {
        return 0;
    }
    const double base = densityBase == 0 ? 1.0 : double(densityBase);
    const uint64_t scaled = uint64_t(std::trunc(double(count) / base * 255.0));
    return uint8_t(std::min<uint64_t>((scaled & 255) + 1, 255));
}

uint32_t countOfDensity(uint8_t density, uint32_t densityBase)
{
    if (density == 0)
    {
        return 0;
    }
    return uint32_t(std::min<double>(densityBase, std::trunc(double(densityBase) * density * (1.0 / 255.0))));
}

uint8_t boxStepOf(uint64_t value, unsigned lod)
{
    return uint8_t(std::min(double(value) * (1.0 / std::ldexp(1.0, int(lod))) * 256.0, 255.0));
}

uint64_t boxValueOf(unsigned step, unsigned lod)
{
    const double edge = std::ldexp(1.0, int(lod));
    const double value = std::min(double(step) * edge / 256.0, edge);
    // 2^64 itself has no uint64; the whole space ends at the largest value.
    return value >= 18446744073709551616.0 ? std::numeric_limits<uint64_t>::max() : uint64_t(value);
}

bool appendTreeBody(const Tree& tree, TreeForm form, std::vector<uint8_t>& bytes, std::string& error)
{
    std::vector<uint8_t> body;
    for (const uint64_t count : tree.lodNodeCounts)
    {
        append<uint64_t>(body, count);
    }
    for (const TreeNode& node : tree.nodes)
    {
        body.push_back(node.childMask);
    }
    for (const TreeNode& node : tree.nodes)
    {
        if (form == TreeForm::kReduced)
        {
            body.push_back(densityOf(node.pointCount, tree.header.densityBase));
        }
        else
        {
            append<uint32_t>(body, node.pointCount);
        }
    }
    body.resize(body.size() + 2 * tree.nodes.size(), 0);  // reserved
    forEachNodeLod(tree,
                   [&](size_t index, unsigned lod)
                   {
                       const TreeNode& node = tree.nodes[index];
                       if (form == TreeForm::kReduced)
                       {
                           appendReducedBox(body, node, lod);
                           return;
                       }
                       for (const uint64_t value : node.min)
                       {
                           append<uint64_t>(body, value);
                       }
                       for (const uint64_t value : node.max)
                       {
                           append<uint64_t>(body, value);
                       }
                   });
    // Only the full form keeps the leaves' own values; an inner node's link follows from the masks.
    for (const TreeNode& node : tree.nodes)
    {
        append<uint32_t>(body, form == TreeForm::kFull && node.childMask == 0 ? node.link : 0);
    }

    const size_t start = beginChunk(bytes, form == TreeForm::kReduced ? kReducedTag : kFullTag);
    append<uint32_t>(bytes, kTreeFormatVersion);
    append<uint64_t>(bytes, body.size());
    const size_t storedSizeAt = bytes.size();
    append<uint64_t>(bytes, 0);
    if (!appendZstdFrame(body, kBodyLevel, bytes, error))
    {
        bytes.resize(start);
        return false;
    }
    little_endian::store<uint64_t>(bytes.data() + storedSizeAt, uint64_t(bytes.size() - storedSizeAt - 8));
    endChunk(bytes, start);
    return true;
}

bool readTreeBody(FieldReader& reader, Tree& tree, TreeForm& form, std::string& error)
{
    const size_t start = reader.position();
    const std::span<const uint8_t> tag = reader.readBytes(4);
    const uint64_t chunkSize = reader.read<uint64_t>();
    const uint32_t version = reader.read<uint32_t>();
    if (!reader.ok())
    {
        error = "the file ends before the tree body";
        return false;
    }
    const char* tagName = kReducedTag;
    if (std::memcmp(tag.data(), kReducedTag, 4) == 0)
    {
        form = TreeForm::kReduced;
    }
    else if (std::memcmp(tag.data(), kFullTag, 4) == 0)
    {
        form = TreeForm::kFull;
        tagName = kFullTag;
    }
    else
    {
        error = "expected an \"APRR\" or \"APRF\" chunk, found \"" +
                std::string(reinterpret_cast<const char*>(tag.data()), 4) + "\"";
        return false;
    }
    if (version > kTreeFormatVersion)
    {
        error = std::string(tagName) + " chunk version " + std::to_string(version) + " is not supported";
        return false;
    }
    const uint64_t headerBytes = reader.position() - start;
    if (version < kFirstVersionWithPointSections)
    {
        // No size fields: the body is the rest of the chunk.
        if (chunkSize < headerBytes || !reader.canHold(chunkSize - headerBytes, 1))
        {
            error = std::string("the \"") + tagName + "\" chunk says it is " + std::to_string(chunkSize) +
                    " bytes long, more than the file holds";
            return false;
        }
        const std::span<const uint8_t> body = reader.readBytes(size_t(chunkSize - headerBytes));
        tree.lodNodeCounts.clear();
        tree.nodes.clear();
        // Bodies older than version 4 are in a form nobody reads any more: the tree stays empty.
        return version < kFirstVersionWithBody || parseBody(body, form, version, tree, error);
    }
    const uint64_t bodySize = reader.read<uint64_t>();
    const uint64_t storedSize = reader.read<uint64_t>();
    const uint64_t frameSize = version >= kFirstVersionWithCompressedBody ? storedSize : bodySize;
    if (!reader.ok() || !reader.canHold(frameSize, 1))
    {
        error = std::string("the \"") + tagName + "\" body runs past the end of the file";
        return false;
    }
    const std::span<const uint8_t> stored = reader.readBytes(size_t(frameSize));
    if (!chunkSizeMatches(reader, start, chunkSize, tagName, error))
    {
        return false;
    }
    if (version < kFirstVersionWithCompressedBody)
    {
        return parseBody(stored, form, version, tree, error);
    }
    std::vector<uint8_t> body;
    if (!inflateZstdFrame(stored, bodySize, body, error))
    {
        error = std::string("the \"") + tagName + "\" body: " + error;
        return false;
    }
    return parseBody(body, form, version, tree, error);
}

}  // namespace HSPC

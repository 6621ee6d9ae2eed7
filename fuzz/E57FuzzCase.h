#pragma once

// The inputs of the three E57 fuzz targets, shared with the test that replays the kept inputs:
// - pages: arbitrary bytes as a whole file, opened in memory and read through: every compressed vector's
//   records and every blob;
// - xml: arbitrary text as the XML section, through the parser that opening a file uses;
// - cv: arbitrary bytes as the binary section of a compressed vector, read with one of a few prototypes.
// Each check returns what went wrong, or an empty text: the fuzzer stops on a non-empty one, the test reports
// it. Failures of the reader are fine as long as they are E57Exceptions.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "e57/CompressedVectorReader.h"
#include "e57/E57Exception.h"
#include "e57/ImageFile.h"
#include "e57/PagedFile.h"
#include "e57/XmlSection.h"

namespace pcp_fuzz
{

// At most this many records are read per input, so that a lying record count of constant fields cannot hold
// the fuzzer up.
inline constexpr uint64_t kE57MaxRecords = 100000;

// Buffers for every field of a compressed vector's prototype; `choice` drops some fields and sends integers
// to bytes, to go through every conversion.
struct E57Buffers
{
    std::vector<std::vector<double>> doubles;
    std::vector<std::vector<uint8_t>> bytes;
    std::vector<e57::SourceDestBuffer> buffers;

    E57Buffers(const e57::Node& prototype, unsigned choice, size_t capacity)
    {
        std::vector<std::pair<std::string, const e57::Node*>> fields;
        collect(prototype, "", fields);
        doubles.reserve(fields.size());
        bytes.reserve(fields.size());
        for (size_t i = 0; i < fields.size(); ++i)
        {
            const unsigned mode = (choice >> (2 * (i % 4))) & 3u;
            if (mode == 3 || fields[i].second->type == e57::NodeType::String)
                continue;  // its bytestream passed over
            const bool integer = fields[i].second->type == e57::NodeType::Integer;
            if (mode == 2 && integer)
            {
                bytes.emplace_back(capacity);
                buffers.push_back(e57::SourceDestBuffer::bytes(fields[i].first, bytes.back()));
            }
            else
            {
                doubles.emplace_back(capacity);
                buffers.push_back(e57::SourceDestBuffer::doubles(fields[i].first, doubles.back(), mode == 0));
            }
        }
        const auto numeric =
            std::find_if(fields.begin(), fields.end(),
                         [](const auto& field) { return field.second->type != e57::NodeType::String; });
        if (buffers.empty() && numeric != fields.end())
        {
            doubles.emplace_back(capacity);
            buffers.push_back(e57::SourceDestBuffer::doubles(numeric->first, doubles.back(), true));
        }
    }

    static void collect(const e57::Node& node, const std::string& path,
                        std::vector<std::pair<std::string, const e57::Node*>>& fields)
    {
        if (node.type == e57::NodeType::Structure || node.type == e57::NodeType::Vector)
            for (const auto& child : node.children)
                collect(*child, path.empty() ? child->name : path + "/" + child->name, fields);
        else
            fields.emplace_back(path, &node);
    }
};

// Reads a compressed vector through; `budget` counts down the records read.
inline std::string readRecords(e57::CompressedVectorReader& reader, uint64_t recordCount, size_t capacity,
                               uint64_t& budget)
{
    uint64_t total = 0;
    while (budget > 0)
    {
        const uint64_t before = reader.remaining();
        const size_t got = reader.read();
        if (got == 0)
            return before == 0 ? std::string() : "no records read while some remain";
        if (got > capacity)
            return "more records than the buffers hold";
        if (reader.remaining() != before - got)
            return "the remaining count does not follow the records read";
        total += got;
        budget -= std::min<uint64_t>(budget, got);
    }
    return total > recordCount ? "more records than the vector holds" : "";
}

// Calls `check` for every compressed vector and blob below `node`.
template <typename F>
void forEachBinary(const e57::Node& node, F&& check)
{
    if (node.type == e57::NodeType::CompressedVector || node.type == e57::NodeType::Blob)
        check(node);
    for (const auto& child : node.children)
        forEachBinary(*child, check);
}

// The first byte's bits: 1 seals every page with its checksum, 2 makes the header's length and the file
// whole pages, so that the fuzzer gets past the checks it cannot solve; the next byte chooses the buffers.
struct E57PagesCase
{
    unsigned flags = 0;
    unsigned buffers = 0;
    std::vector<uint8_t> file;

    static std::optional<E57PagesCase> decode(const uint8_t* data, size_t size)
    {
        if (size < 2)
            return std::nullopt;
        E57PagesCase input;
        input.flags = data[0];
        input.buffers = data[1];
        input.file.assign(data + 2, data + size);
        if ((input.flags & 2u) != 0)
        {
            input.file.resize((input.file.size() + e57::kPageSize - 1) / e57::kPageSize * e57::kPageSize, 0);
            if (input.file.size() >= 24)
            {
                const uint64_t length = input.file.size();
                std::memcpy(input.file.data() + 16, &length, sizeof length);
            }
        }
        if ((input.flags & 1u) != 0)
            for (size_t page = 0; page + e57::kPageSize <= input.file.size(); page += e57::kPageSize)
                e57::sealPage(input.file.data() + page);
        return input;
    }
};

inline std::string checkE57Pages(const E57PagesCase& input)
{
    try
    {
        auto pages = std::make_unique<e57::PagedFile>("fuzz.e57", input.file);
        // Every logical byte through a small window, as sequential readers go.
        e57::PageReader reader(*pages, 3);
        std::vector<uint8_t> piece(777);
        for (uint64_t at = 0; at < pages->logicalSize(); at += piece.size())
        {
            const auto size =
                static_cast<size_t>(std::min<uint64_t>(piece.size(), pages->logicalSize() - at));
            try
            {
                reader.read(at, piece.data(), size);
            }
            catch (const e57::E57Exception& e)
            {
                if (e.code() != e57::ErrorCode::BadChecksum)
                    return "a read inside the file failed: " + e.context();
            }
        }
        const e57::ImageFile file(std::move(pages));
        uint64_t budget = kE57MaxRecords;
        std::string problem;
        forEachBinary(file.root(),
                      [&](const e57::Node& node)
                      {
                          try
                          {
                              if (node.type == e57::NodeType::Blob)
                              {
                                  if (file.readBlob(node, 1 << 20).size() != node.length && problem.empty())
                                      problem = "a blob of another length than its node's";
                                  return;
                              }
                              E57Buffers buffers(*node.prototype, input.buffers, 1000);
                              e57::CompressedVectorReader cv(file, node, buffers.buffers);
                              const std::string found = readRecords(cv, node.recordCount, 1000, budget);
                              if (problem.empty())
                                  problem = found;
                          }
                          catch (const e57::E57Exception&)
                          {
                          }
                      });
        return problem;
    }
    catch (const e57::E57Exception&)
    {
        return {};
    }
    catch (const std::exception& e)
    {
        return std::string("a foreign exception: ") + e.what();
    }
}

// Every node is where its path says, under the parent it names, no deeper than the limit.
inline std::string checkTree(const e57::Node& root, const e57::Node& node, size_t depth)
{
    if (depth > e57::kMaxXmlDepth)
        return "a tree deeper than the limit";
    if (root.find(node.pathName()) != &node)
        return "node " + node.pathName() + " is not found at its path";
    for (const e57::Node* part : {node.prototype.get(), node.codecs.get()})
        if (part != nullptr && (part->parent != &node || !checkTree(root, *part, depth + 1).empty()))
            return "a compressed vector's prototype or codecs out of place";
    for (size_t i = 0; i < node.children.size(); ++i)
    {
        const e57::Node& child = *node.children[i];
        if (child.parent != &node)
            return "a child of " + node.pathName() + " names another parent";
        if (node.type == e57::NodeType::Vector && child.name != std::to_string(i))
            return "a vector's child not named by its index";
        const std::string problem = checkTree(root, child, depth + 1);
        if (!problem.empty())
            return problem;
    }
    return {};
}

inline std::string checkE57Xml(std::string_view text)
{
    try
    {
        const e57::XmlTree tree = e57::parseXmlSection(text, "fuzz.e57");
        if (tree.treeBytes > e57::kMaxXmlTreeBytes)
            return "a tree beyond the memory limit";
        return checkTree(*tree.root, *tree.root, 1);
    }
    catch (const e57::E57Exception&)
    {
        return {};
    }
    catch (const std::exception& e)
    {
        return std::string("a foreign exception: ") + e.what();
    }
}

// The prototypes a cv input chooses from: the benchmark's record, scaled coordinates with an invalid state,
// integers of many widths (0, 1, 3, 11, 41 and 64 bits) with a double, nested containers, and String fields
// between numbers, whose bytestreams are passed over.
inline const char* const kE57CvPrototypes[] = {
    R"(<cartesianX type="Float" precision="single"/><cartesianY type="Float" precision="single"/>
       <cartesianZ type="Float" precision="single"/><intensity type="Float" precision="single"/>
       <colorRed type="Integer" minimum="0" maximum="255"/><colorGreen type="Integer" minimum="0" maximum="255"/>
       <colorBlue type="Integer" minimum="0" maximum="255"/>)",
    R"(<cartesianX type="ScaledInteger" minimum="-2147483648" maximum="2147483647" scale="0.001"/>
       <cartesianY type="ScaledInteger" minimum="-2147483648" maximum="2147483647" scale="0.001" offset="10"/>
       <cartesianZ type="ScaledInteger" minimum="-100000" maximum="100000" scale="0.0001"/>
       <cartesianInvalidState type="Integer" minimum="0" maximum="2"/>)",
    R"(<a type="Integer" minimum="5" maximum="5"/><b type="Integer" minimum="0" maximum="1"/>
       <c type="Integer" minimum="-3" maximum="3"/><d type="Integer" minimum="-1000" maximum="1000"/>
       <e type="Integer" minimum="0" maximum="2000000000000"/><f type="Integer"/><g type="Float"/>)",
    R"(<s type="Structure"><x type="Float" precision="single"/><v type="Vector"><i type="Integer" minimum="0"
       maximum="1023"/><j type="ScaledInteger" minimum="0" maximum="7" scale="0.5"/></v></s>
       <t type="Integer" minimum="0" maximum="255"/>)",
    R"(<cartesianX type="Float"/><id type="String"/><n type="Integer" minimum="0" maximum="7"/>
       <note type="String"/><cartesianY type="ScaledInteger" minimum="-1000" maximum="1000" scale="0.01"/>)",
};

// Byte 0 chooses the prototype, byte 1 the buffers, bytes 2 and 3 the record count; the rest is the section,
// from its header on, paged and sealed.
struct E57CvCase
{
    size_t prototype = 0;
    unsigned buffers = 0;
    uint64_t recordCount = 0;
    std::vector<uint8_t> section;

    static std::optional<E57CvCase> decode(const uint8_t* data, size_t size)
    {
        if (size < 4)
            return std::nullopt;
        E57CvCase input;
        input.prototype = data[0] % std::size(kE57CvPrototypes);
        input.buffers = data[1];
        input.recordCount = data[2] | (uint64_t{data[3]} << 8);
        input.section.assign(data + 4, data + size);
        return input;
    }

    std::string xml() const
    {
        return std::string(
                   "<e57Root type=\"Structure\"><points type=\"CompressedVector\" fileOffset=\"0\" "
                   "recordCount=\"") +
               std::to_string(recordCount) + "\"><prototype type=\"Structure\">" +
               kE57CvPrototypes[prototype] + "</prototype><codecs type=\"Vector\"/></points></e57Root>";
    }

    std::vector<uint8_t> pages() const
    {
        const size_t count = (section.size() + e57::kPagePayload - 1) / e57::kPagePayload;
        std::vector<uint8_t> file(count * e57::kPageSize, 0);
        for (size_t p = 0; p < count; ++p)
        {
            const size_t take = std::min<size_t>(e57::kPagePayload, section.size() - p * e57::kPagePayload);
            std::memcpy(file.data() + p * e57::kPageSize, section.data() + p * e57::kPagePayload, take);
            e57::sealPage(file.data() + p * e57::kPageSize);
        }
        return file;
    }
};

inline std::string checkE57Cv(const E57CvCase& input)
{
    try
    {
        const e57::XmlTree tree = e57::parseXmlSection(input.xml(), "fuzz.e57");
        const e57::Node& points = tree.root->at("points");
        const e57::PagedFile pages("fuzz.e57", input.pages());
        E57Buffers buffers(*points.prototype, input.buffers, 777);
        e57::CompressedVectorReader reader(pages, points, buffers.buffers);
        uint64_t budget = kE57MaxRecords;
        return readRecords(reader, points.recordCount, 777, budget);
    }
    catch (const e57::E57Exception&)
    {
        return {};
    }
    catch (const std::exception& e)
    {
        return std::string("a foreign exception: ") + e.what();
    }
}

}  // namespace pcp_fuzz

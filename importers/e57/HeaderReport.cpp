#include <filesystem>
#include <stdexcept>
#include <string>

#include "core/StringConversion.h"
#include "core/StringPathConvertor.h"
#include "e57/E57Exception.h"
#include "e57/ImageFile.h"
#include "importers/E57.h"
#include "importers/e57/ReaderErrors.h"

namespace pc_preprocess
{

namespace
{

void writeTree(const e57::Node& node, size_t level, std::ostream& out);

// A report shows every element, also one whose number the reader could not use; the numbers shown are then
// the defaults that took its place.
std::string malformed(const e57::Node& node)
{
    return node.malformedNumber ? " (not a number: " + node.stringValue + ")" : std::string();
}

void writeChildren(const e57::Node& node, size_t level, std::ostream& out)
{
    for (const auto& child : node.children)
        writeTree(*child, level, out);
}

// One line per element, indented by its depth, then its children one level deeper.
void writeTree(const e57::Node& node, size_t level, std::ostream& out)
{
    const std::string indent(4 * level, ' ');
    out << indent << (node.name.empty() ? std::string("/") : node.name) << " : ";
    switch (node.type)
    {
        case e57::NodeType::Structure:
            out << "Structure with " << node.children.size() << " children\n";
            writeChildren(node, level + 1, out);
            return;
        case e57::NodeType::Vector:
            out << "Vector with " << node.children.size() << " children\n";
            writeChildren(node, level + 1, out);
            return;
        case e57::NodeType::CompressedVector:
            out << "CompressedVector with " << node.recordCount << " children\n";
            out << indent << "    Prototype:\n";
            if (node.prototype)
                writeTree(*node.prototype, level + 2, out);
            out << indent << "    Codecs:\n";
            if (node.codecs)
                writeTree(*node.codecs, level + 2, out);
            return;
        case e57::NodeType::Integer:
            out << "Integer in range [" << node.integerMinimum << ":" << node.integerMaximum
                << "] = " << node.integerValue << malformed(node) << "\n";
            return;
        case e57::NodeType::ScaledInteger:
            out << "ScaledInteger in raw range [" << node.integerMinimum << " : " << node.integerMaximum
                << "] = " << node.offset << " + " << node.scale << " * " << node.integerValue << " = "
                << node.offset + node.scale * static_cast<double>(node.integerValue) << malformed(node)
                << "\n";
            return;
        case e57::NodeType::Float:
            out << "Float in range [" << node.floatMinimum << " : " << node.floatMaximum
                << "] = " << node.floatValue << malformed(node) << "\n";
            return;
        case e57::NodeType::String:
            out << "String = \"" << node.stringValue << "\"\n";
            return;
        case e57::NodeType::Blob:
            out << "Blob with " << node.length << " bytes\n";
            return;
    }
    out << "Unknown e57::Node::type\n";
}

}  // namespace

void e57Header(const e57::ImageFile& file, const std::wstring& path, std::ostream& out)
{
    out << "Header Info For File = " << ws2s(path) << "\n";
    out << "    File Size = " << file.fileSize() << "\n";
    writeTree(file.root(), 1, out);
}

void e57Header(const std::wstring& path, std::ostream& out)
{
    const StringPathConvertor convertor(path);
    if (convertor.convertedInputPath().empty())
        throw std::runtime_error("Could not convert path " + ws2s(path));
    std::unique_ptr<e57::ImageFile> file;
    try
    {
        file = std::make_unique<e57::ImageFile>(toPath(path));
    }
    catch (const e57::E57Exception& e)
    {
        throw std::runtime_error("Could not open file " + ws2s(path) + "\n" + describeE57Exception(e));
    }
    e57Header(*file, path, out);
}

}  // namespace pc_preprocess

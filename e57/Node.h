#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace e57
{

enum class NodeType : uint8_t
{
    Structure,
    Vector,
    CompressedVector,
    Integer,
    ScaledInteger,
    Float,
    String,
    Blob,
};

// One element of the XML section, with its type, its values and its children. A tree of nodes is built once
// when the file opens and does not change; a node owns its children.
class Node
{
public:
    NodeType type = NodeType::Structure;
    // A number of the element (its value or one of its attributes) is malformed ("1.#INF", "1,5"): the
    // numbers hold defaults, stringValue tells what was written, and requireNumbers() fails. A file is not
    // refused for a number that nobody reads.
    bool malformedNumber = false;
    // Float: single precision, when the file says precision="single".
    bool singlePrecision = false;
    // The element's name ("data3D", "cartesianX"; a vector's children are named "0", "1", ...).
    std::string name;
    Node* parent = nullptr;

    // Structure and Vector: the children in file order. CompressedVector: none (see prototype and codecs).
    std::vector<std::unique_ptr<Node>> children;

    // Integer: value, minimum, maximum. ScaledInteger: the raw value and the raw range.
    int64_t integerValue = 0;
    int64_t integerMinimum = 0;
    int64_t integerMaximum = 0;
    // ScaledInteger: the value is offset + scale * raw.
    double scale = 1.0;
    double offset = 0.0;
    // Float: value and range.
    double floatValue = 0.0;
    double floatMinimum = 0.0;
    double floatMaximum = 0.0;
    // String; for an element with a malformed number, what was written ("value \"1,5\"").
    std::string stringValue;
    // Blob: the logical offset (pages' checksums left out) of its binary section, whose 16-byte header the
    // bytes follow, and how many bytes there are. CompressedVector: the logical offset of its binary section
    // and its record count.
    uint64_t binaryOffset = 0;
    uint64_t length = 0;
    uint64_t recordCount = 0;
    // CompressedVector: the record's prototype (a Structure or a single field) and the codecs (a Vector).
    std::unique_ptr<Node> prototype;
    std::unique_ptr<Node> codecs;

    // The descendant at a path of element names separated by "/", relative to this node ("pose/rotation/w",
    // "0" for a vector's first child); a path starting with "/" starts at the root. Names may carry an
    // extension prefix ("nor:normalX"); an empty path is the node itself. Null when there is no such node.
    const Node* find(std::string_view path) const;
    bool has(std::string_view path) const { return find(path) != nullptr; }
    // The child at a path, which must exist; E57Exception PathUndefined otherwise.
    const Node& at(std::string_view path) const;

    bool isStructure() const { return type == NodeType::Structure; }
    bool isVector() const { return type == NodeType::Vector; }
    // The value of a numeric node: Integer, ScaledInteger (scaled) or Float; E57Exception ExpectingNumeric
    // for other types, BadXmlFormat (with the node's path) for a malformed number.
    double numericValue() const;
    // Fails with BadXmlFormat, naming the node's path and the text, when a number of the element is
    // malformed: for everything that reads the numbers of a node other than through numericValue.
    void requireNumbers() const;
    // The element path from the root, e.g. "/data3D/0/points".
    std::string pathName() const;
};

}  // namespace e57

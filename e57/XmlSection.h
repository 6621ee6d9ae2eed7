#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "e57/Node.h"

namespace e57
{

// Elements nested deeper than this are refused: real files nest fewer than ten levels, and the limit keeps a
// hostile file from exhausting the stack of whoever walks the tree.
inline constexpr size_t kMaxXmlDepth = 64;
// At most one element per this many bytes of XML: a well-formed element with its type attribute takes at
// least 16 bytes.
inline constexpr size_t kXmlBytesPerNode = 16;
// The most memory a file's element tree may take, nodes and their strings counted: about a million elements,
// where large real projects hold some tens of thousands. Several files may be open at once, one per worker.
inline constexpr size_t kMaxXmlTreeBytes = size_t{256} << 20;

// A namespace prefix that the file declares ("nor") and the URI it binds the prefix to.
struct NamespaceBinding
{
    std::string prefix;
    std::string uri;
};

// The parsed XML section: its root, the namespace declarations of its elements in the order found, and the
// memory the tree takes, as counted against the limit.
struct XmlTree
{
    std::unique_ptr<Node> root;
    std::vector<NamespaceBinding> namespaces;
    size_t treeBytes = 0;
};

// Parses the XML section of an E57 file into its node tree, as ImageFile does on opening a file. `fileName`
// names the file in messages. The root element becomes an unnamed Structure; a Vector's children are named
// "0", "1", ...; a CompressedVector's "prototype" and "codecs" elements become its prototype and codecs;
// "fileOffset" attributes, physical offsets in the file, become logical offsets.
// A malformed number does not fail the parse: its node is marked (Node::malformedNumber) and fails when its
// numbers are read.
// Throws E57Exception: XmlParser for text that is not well-formed XML (expat's message, line and column),
// BadXmlFormat for an element whose type, structural attributes or place is wrong, or for nesting, element
// counts or memory beyond the limits above, XmlParserInit when expat cannot start.
XmlTree parseXmlSection(std::string_view xml, const std::string& fileName,
                        size_t maxTreeBytes = kMaxXmlTreeBytes);

}  // namespace e57

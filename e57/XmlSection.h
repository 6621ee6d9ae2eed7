#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "e57/Node.h"

namespace e57
{

// Elements nested deeper than this are refused: real files nest fewer than ten levels, and the limit keeps a
// hostile file from exhausting the stack of whoever walks the tree.
inline constexpr size_t kMaxXmlDepth = 64;
// At most this many elements per byte of XML, and never more than kMaxXmlNodes: a well-formed element with
// its type attribute takes at least 16 bytes, so no real file comes near either bound.
inline constexpr size_t kXmlBytesPerNode = 16;
inline constexpr size_t kMaxXmlNodes = size_t{8} << 20;

// Parses the XML section of an E57 file into its node tree, as ImageFile does on opening a file. `fileName`
// names the file in messages. The root element becomes an unnamed Structure; a Vector's children are named
// "0", "1", ...; a CompressedVector's "prototype" and "codecs" elements become its prototype and codecs;
// "fileOffset" attributes, physical offsets in the file, become logical offsets.
// Throws E57Exception: XmlParser for text that is not well-formed XML (expat's message, line and column),
// BadXmlFormat for an element whose type, attributes, value or place is wrong, or for nesting or element
// counts beyond the limits above, XmlParserInit when expat cannot start.
std::unique_ptr<Node> parseXmlSection(std::string_view xml, const std::string& fileName);

}  // namespace e57

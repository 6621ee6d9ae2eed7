#include "e57/XmlSection.h"

#include <expat.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "e57/E57Exception.h"
#include "e57/PagedFile.h"

namespace e57
{

namespace
{

constexpr std::string_view kSpaces = " \t\r\n";
// How much of a malformed text a node keeps for the message.
constexpr size_t kMaxQuotedText = 60;

// A text in double quotes for a message, cut short when it is long.
std::string quoted(std::string_view text)
{
    if (text.size() <= kMaxQuotedText)
        return "\"" + std::string(text) + "\"";
    return "\"" + std::string(text.substr(0, kMaxQuotedText)) + "...\"";
}
// What the heap adds to each block it hands out, about.
constexpr size_t kAllocationOverhead = 16;

// The heap bytes a string holds beyond its object.
size_t heapBytes(const std::string& text)
{
    static const size_t inPlace = std::string().capacity();
    return text.capacity() > inPlace ? text.capacity() + 1 + kAllocationOverhead : 0;
}

// What one node costs beyond its strings: the node itself, its place in its parent's list of children
// (twice, as the list grows by doubling), and its entry in the index that finds a name given twice.
constexpr size_t kNodeBytes = sizeof(Node) + kAllocationOverhead + 2 * sizeof(void*) + 64;

std::string_view trim(std::string_view text)
{
    const size_t first = text.find_first_not_of(kSpaces);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(kSpaces) - first + 1);
}

// Numbers as the XML writes them, with an optional leading "+", independent of the C locale. A NaN, in any
// spelling ("nan", "-nan(ind)"), is no number that anything could use.
template <typename T>
std::optional<T> parseNumber(std::string_view text)
{
    text = trim(text);
    if (!text.empty() && text.front() == '+')
        text.remove_prefix(1);
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    if constexpr (std::is_floating_point_v<T>)
        if (std::isnan(value))
            return std::nullopt;
    return value;
}

std::optional<NodeType> parseType(std::string_view text)
{
    static constexpr std::pair<std::string_view, NodeType> kTypes[] = {
        {"Structure", NodeType::Structure},
        {"Vector", NodeType::Vector},
        {"CompressedVector", NodeType::CompressedVector},
        {"Integer", NodeType::Integer},
        {"ScaledInteger", NodeType::ScaledInteger},
        {"Float", NodeType::Float},
        {"String", NodeType::String},
        {"Blob", NodeType::Blob},
    };
    for (const auto& [name, type] : kTypes)
        if (name == text)
            return type;
    return std::nullopt;
}

bool isTerminal(NodeType type)
{
    return type != NodeType::Structure && type != NodeType::Vector && type != NodeType::CompressedVector;
}

// The attributes of one element that the format defines; all others are passed over.
struct Attributes
{
    const char* type = nullptr;
    const char* minimum = nullptr;
    const char* maximum = nullptr;
    const char* scale = nullptr;
    const char* offset = nullptr;
    const char* precision = nullptr;
    const char* fileOffset = nullptr;
    const char* recordCount = nullptr;
    const char* length = nullptr;
    const char* allowHeterogeneousChildren = nullptr;

    explicit Attributes(const XML_Char** pairs)
    {
        const std::pair<const char*, const char**> known[] = {
            {"type", &type},
            {"minimum", &minimum},
            {"maximum", &maximum},
            {"scale", &scale},
            {"offset", &offset},
            {"precision", &precision},
            {"fileOffset", &fileOffset},
            {"recordCount", &recordCount},
            {"length", &length},
            {"allowHeterogeneousChildren", &allowHeterogeneousChildren},
        };
        for (; pairs[0] != nullptr; pairs += 2)
            for (const auto& [name, slot] : known)
                if (std::strcmp(pairs[0], name) == 0)
                    *slot = pairs[1];
    }
};

// Builds the tree from expat's callbacks. A callback never throws through expat's C frames: it records the
// first failure and stops the parser, and parse() throws it once expat has returned.
class TreeBuilder
{
public:
    TreeBuilder(std::string_view xml, const std::string& fileName, size_t maxTreeBytes)
        : m_fileName(fileName),
          m_xmlSize(xml.size()),
          m_maxNodes(xml.size() / kXmlBytesPerNode + 16),
          m_maxTreeBytes(maxTreeBytes)
    {
    }

    XmlTree parse(std::string_view xml)
    {
        const std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> owner(XML_ParserCreate(nullptr),
                                                                                 &XML_ParserFree);
        if (!owner)
            E57_THROW(ErrorCode::XmlParserInit, "cannot create an XML parser for " + m_fileName);
        XML_Parser parser = owner.get();
        m_parser = parser;
        XML_SetUserData(parser, this);
        XML_SetElementHandler(parser, &TreeBuilder::onStart, &TreeBuilder::onEnd);
        XML_SetCharacterDataHandler(parser, &TreeBuilder::onText);
        XML_SetStartDoctypeDeclHandler(parser, &TreeBuilder::onDoctype);

        bool ok = true;
        // expat takes an int length: the text goes in pieces.
        constexpr size_t kPiece = size_t{1} << 26;
        size_t done = 0;
        do
        {
            const size_t piece = std::min(kPiece, xml.size() - done);
            const bool last = done + piece == xml.size();
            ok = XML_Parse(parser, xml.data() + done, static_cast<int>(piece), last ? XML_TRUE : XML_FALSE) ==
                 XML_STATUS_OK;
            done += piece;
        } while (ok && done < xml.size());

        std::string expatError;
        if (!ok && !m_failure)
            expatError = "XML section of " + m_fileName + ": " + XML_ErrorString(XML_GetErrorCode(parser)) +
                         " at line " + std::to_string(XML_GetCurrentLineNumber(parser)) + ", column " +
                         std::to_string(XML_GetCurrentColumnNumber(parser));
        if (m_failure)
            E57_THROW(m_failure->first, m_failure->second);
        if (!expatError.empty())
            E57_THROW(ErrorCode::XmlParser, expatError);
        if (!m_root)
            E57_THROW(ErrorCode::BadXmlFormat, "XML section of " + m_fileName + " has no root element");
        return XmlTree{std::move(m_root), std::move(m_namespaces), m_treeBytes};
    }

private:
    struct Frame
    {
        Node* node;
        std::string text;
        bool insidePrototype = false;
        // A Structure's child names (views of the children's own), to refuse a name given twice.
        std::unordered_set<std::string_view> names;
    };

    static void XMLCALL onStart(void* self, const XML_Char* name, const XML_Char** attributes)
    {
        static_cast<TreeBuilder*>(self)->guard([&](TreeBuilder& b) { b.start(name, attributes); });
    }
    static void XMLCALL onEnd(void* self, const XML_Char* /*name*/)
    {
        static_cast<TreeBuilder*>(self)->guard([](TreeBuilder& b) { b.end(); });
    }
    static void XMLCALL onText(void* self, const XML_Char* text, int length)
    {
        static_cast<TreeBuilder*>(self)->guard(
            [&](TreeBuilder& b) { b.text(std::string_view(text, static_cast<size_t>(length))); });
    }
    static void XMLCALL onDoctype(void* self, const XML_Char*, const XML_Char*, const XML_Char*, int)
    {
        static_cast<TreeBuilder*>(self)->guard(
            [](TreeBuilder& b) { b.fail("a document type declaration, which E57 does not use"); });
    }

    template <typename F>
    void guard(F&& step)
    {
        if (m_failure)
            return;
        try
        {
            step(*this);
        }
        catch (const E57Exception& e)
        {
            m_failure.emplace(e.code(), e.context());
        }
        catch (const std::bad_alloc&)
        {
            m_failure.emplace(ErrorCode::BadXmlFormat, "XML section of " + m_fileName + ": out of memory");
        }
        if (m_failure)
            XML_StopParser(m_parser, XML_FALSE);
    }

    [[noreturn]] void fail(const std::string& what) const
    {
        E57_THROW(ErrorCode::BadXmlFormat, "XML section of " + m_fileName + ", line " +
                                               std::to_string(XML_GetCurrentLineNumber(m_parser)) + ": " +
                                               what);
    }

    std::string where(const Node& node) const
    {
        return "element " + (node.parent ? node.pathName() : std::string("/"));
    }

    // Marks the element as holding a malformed number, keeping the first thing found: the file is refused
    // only if something reads the element's numbers.
    static void markMalformed(Node& node, const std::string& what)
    {
        if (node.malformedNumber)
            return;
        node.malformedNumber = true;
        node.stringValue = what;
    }

    template <typename T>
    static T number(Node& node, const char* attribute, const char* text, T fallback)
    {
        if (text == nullptr)
            return fallback;
        const std::optional<T> value = parseNumber<T>(text);
        if (!value)
        {
            markMalformed(node, std::string("attribute ") + attribute + "=" + quoted(text));
            return fallback;
        }
        return *value;
    }

    template <typename T>
    T required(Node& node, const char* attribute, const char* text) const
    {
        if (text == nullptr)
            fail(where(node) + " lacks the attribute " + attribute);
        return number<T>(node, attribute, text, T{});
    }

    // The element's own value, from its text; `fallback` when the text is empty or malformed.
    template <typename T>
    static T value(Node& node, std::string_view text, T fallback)
    {
        if (trim(text).empty())
            return fallback;
        const std::optional<T> parsed = parseNumber<T>(text);
        if (!parsed)
        {
            markMalformed(node, "value " + quoted(trim(text)));
            return fallback;
        }
        return *parsed;
    }

    uint64_t logicalOffset(Node& node, const char* text) const
    {
        const auto physical = required<uint64_t>(node, "fileOffset", text);
        if (node.malformedNumber)
            return 0;
        if (isChecksumOffset(physical))
            fail(where(node) + ": fileOffset " + std::to_string(physical) + " points into a page checksum");
        return physicalToLogical(physical);
    }

    // The element's place in the tree: its parent, and its name there.
    void attach(std::unique_ptr<Node> node, const char* elementName)
    {
        if (m_stack.empty())
        {
            if (node->type != NodeType::Structure)
                fail("the root element <" + std::string(elementName) + "> is not a Structure");
            m_root = std::move(node);
            return;
        }
        Frame& parentFrame = m_stack.back();
        Node& parent = *parentFrame.node;
        node->parent = &parent;
        switch (parent.type)
        {
            case NodeType::Structure:
                node->name = elementName;
                parent.children.push_back(std::move(node));
                if (!parentFrame.names.insert(parent.children.back()->name).second)
                    fail(where(parent) + " has two children named " + parent.children.back()->name);
                return;
            case NodeType::Vector:
                node->name = std::to_string(parent.children.size());
                parent.children.push_back(std::move(node));
                return;
            case NodeType::CompressedVector:
            {
                const std::string_view role = elementName;
                std::unique_ptr<Node>& slot = role == "prototype" ? parent.prototype : parent.codecs;
                if (role != "prototype" && role != "codecs")
                    fail(where(parent) + " holds <" + std::string(role) + ">, not a prototype or codecs");
                if (slot)
                    fail(where(parent) + " has two " + std::string(role) + " elements");
                if (role == "codecs" && node->type != NodeType::Vector)
                    fail(where(parent) + ": its codecs are not a Vector");
                node->name = role;
                slot = std::move(node);
                return;
            }
            default:
                fail(where(parent) + " is a terminal element and cannot hold <" + std::string(elementName) +
                     ">");
        }
    }

    void start(const XML_Char* elementName, const XML_Char** pairs)
    {
        if (m_stack.size() >= kMaxXmlDepth)
            fail("elements nested deeper than " + std::to_string(kMaxXmlDepth) + " levels");
        if (++m_nodes > m_maxNodes)
            fail("more than " + std::to_string(m_maxNodes) + " elements for " + std::to_string(m_xmlSize) +
                 " bytes of XML");
        const Attributes attributes(pairs);
        if (attributes.type == nullptr)
            fail("element <" + std::string(elementName) + "> has no type attribute");
        const std::optional<NodeType> type = parseType(attributes.type);
        if (!type)
            fail("element <" + std::string(elementName) + "> has the unknown type \"" + attributes.type +
                 "\"");

        auto owned = std::make_unique<Node>();
        Node& node = *owned;
        node.type = *type;
        const bool insidePrototype =
            !m_stack.empty() &&
            (m_stack.back().insidePrototype || (m_stack.back().node->type == NodeType::CompressedVector &&
                                                std::strcmp(elementName, "prototype") == 0));
        attach(std::move(owned), elementName);
        count(kNodeBytes + heapBytes(node.name));
        bindNamespaces(pairs);
        if (insidePrototype && (node.type == NodeType::Blob || node.type == NodeType::CompressedVector))
            fail(where(node) + ": a prototype cannot hold a Blob or CompressedVector");
        readAttributes(node, attributes);
        m_stack.push_back(Frame{&node, {}, insidePrototype, {}});
    }

    // A range or scale that cannot be used is kept as a malformed number as well: only a reader of the
    // element's values needs it.
    void readAttributes(Node& node, const Attributes& a) const
    {
        constexpr int64_t kLowest = std::numeric_limits<int64_t>::min();
        constexpr int64_t kHighest = std::numeric_limits<int64_t>::max();
        switch (node.type)
        {
            case NodeType::Integer:
            case NodeType::ScaledInteger:
                node.integerMinimum = number<int64_t>(node, "minimum", a.minimum, kLowest);
                node.integerMaximum = number<int64_t>(node, "maximum", a.maximum, kHighest);
                if (node.integerMinimum > node.integerMaximum)
                    markMalformed(node, "minimum " + std::to_string(node.integerMinimum) + " above maximum " +
                                            std::to_string(node.integerMaximum));
                if (node.type == NodeType::ScaledInteger)
                {
                    node.scale = number<double>(node, "scale", a.scale, 1.0);
                    node.offset = number<double>(node, "offset", a.offset, 0.0);
                    if (!std::isfinite(node.scale) || !std::isfinite(node.offset) || node.scale == 0.0)
                        markMalformed(node, "scale " + std::to_string(node.scale) + " with offset " +
                                                std::to_string(node.offset));
                }
                return;
            case NodeType::Float:
            {
                const std::string_view precision = a.precision ? a.precision : "double";
                if (precision != "single" && precision != "double")
                    fail(where(node) + ": precision \"" + std::string(precision) +
                         "\" is neither single nor double");
                node.singlePrecision = precision == "single";
                const double limit = node.singlePrecision ? std::numeric_limits<float>::max()
                                                          : std::numeric_limits<double>::max();
                node.floatMinimum = number<double>(node, "minimum", a.minimum, -limit);
                node.floatMaximum = number<double>(node, "maximum", a.maximum, limit);
                if (node.floatMinimum > node.floatMaximum)
                    markMalformed(node, "minimum " + std::to_string(node.floatMinimum) + " above maximum " +
                                            std::to_string(node.floatMaximum));
                return;
            }
            case NodeType::Blob:
                node.binaryOffset = logicalOffset(node, a.fileOffset);
                node.length = required<uint64_t>(node, "length", a.length);
                return;
            case NodeType::CompressedVector:
                node.binaryOffset = logicalOffset(node, a.fileOffset);
                node.recordCount = required<uint64_t>(node, "recordCount", a.recordCount);
                return;
            case NodeType::Vector:
                if (a.allowHeterogeneousChildren != nullptr)
                {
                    const auto allow =
                        number<int64_t>(node, "allowHeterogeneousChildren", a.allowHeterogeneousChildren, 0);
                    if (allow != 0 && allow != 1)
                        markMalformed(node, "allowHeterogeneousChildren " + std::to_string(allow));
                }
                return;
            case NodeType::Structure:
            case NodeType::String:
                return;
        }
    }

    void text(std::string_view piece)
    {
        if (m_stack.empty())
            return;  // expat keeps text outside the root to itself, but a guard costs nothing
        Frame& frame = m_stack.back();
        if (isTerminal(frame.node->type))
            frame.text.append(piece);
        else if (!trim(piece).empty())
            fail(where(*frame.node) + " holds text, but it is a " +
                 std::string(frame.node->type == NodeType::Structure ? "Structure"
                             : frame.node->type == NodeType::Vector  ? "Vector"
                                                                     : "CompressedVector"));
    }

    void end()
    {
        Frame& frame = m_stack.back();
        Node& node = *frame.node;
        const std::string_view text = frame.text;
        switch (node.type)
        {
            case NodeType::Integer:
            case NodeType::ScaledInteger:
                // An empty element (a prototype's field) takes 0, or the end of its range nearest to 0.
                node.integerValue = value<int64_t>(
                    node, text,
                    node.malformedNumber ? 0
                                         : std::clamp<int64_t>(0, node.integerMinimum, node.integerMaximum));
                if (node.integerValue < node.integerMinimum || node.integerValue > node.integerMaximum)
                    markMalformed(node, "value " + std::to_string(node.integerValue) + " outside [" +
                                            std::to_string(node.integerMinimum) + ", " +
                                            std::to_string(node.integerMaximum) + "]");
                break;
            case NodeType::Float:
                node.floatValue = value<double>(node, text, 0.0);
                break;
            case NodeType::String:
                node.stringValue = std::move(frame.text);
                break;
            case NodeType::CompressedVector:
                if (!node.prototype)
                    fail(where(node) + " has no prototype");
                break;
            case NodeType::Structure:
            case NodeType::Vector:
            case NodeType::Blob:
                if (node.type == NodeType::Blob && !trim(text).empty())
                    fail(where(node) + " holds text, but it is a Blob");
                break;
        }
        count(heapBytes(node.stringValue));
        m_stack.pop_back();
    }

    // Adds to the memory the tree takes, which must stay within the limit.
    void count(size_t bytes)
    {
        m_treeBytes += bytes;
        if (m_treeBytes > m_maxTreeBytes)
            fail("its elements would take more than " + std::to_string(m_maxTreeBytes >> 20) +
                 " MiB of memory");
    }

    // Namespace declarations ("xmlns:nor=..."). E57 writers declare their extensions once, on the root
    // element, so a declaration counts for the whole file; the first binding of a prefix stands.
    void bindNamespaces(const XML_Char** pairs)
    {
        constexpr std::string_view kDeclaration = "xmlns:";
        for (; pairs[0] != nullptr; pairs += 2)
        {
            const std::string_view attribute = pairs[0];
            if (!attribute.starts_with(kDeclaration))
                continue;
            const std::string_view prefix = attribute.substr(kDeclaration.size());
            const bool known = std::any_of(m_namespaces.begin(), m_namespaces.end(),
                                           [&](const NamespaceBinding& b) { return b.prefix == prefix; });
            if (!known)
            {
                m_namespaces.push_back(NamespaceBinding{std::string(prefix), pairs[1]});
                count(sizeof(NamespaceBinding) + heapBytes(m_namespaces.back().prefix) +
                      heapBytes(m_namespaces.back().uri));
            }
        }
    }

    std::string m_fileName;
    size_t m_xmlSize;
    size_t m_maxNodes;
    size_t m_maxTreeBytes;
    size_t m_nodes = 0;
    size_t m_treeBytes = 0;
    std::vector<NamespaceBinding> m_namespaces;
    XML_Parser m_parser = nullptr;
    std::unique_ptr<Node> m_root;
    std::vector<Frame> m_stack;
    std::optional<std::pair<ErrorCode, std::string>> m_failure;
};

}  // namespace

XmlTree parseXmlSection(std::string_view xml, const std::string& fileName, size_t maxTreeBytes)
{
    return TreeBuilder(xml, fileName, maxTreeBytes).parse(xml);
}

}  // namespace e57

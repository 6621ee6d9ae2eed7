#include "hspc/store/RadixNames.h"

#include <algorithm>
#include <deque>
#include <optional>

#include "hspc/store/PackCodec.h"

namespace HSPC::pack
{

namespace
{

constexpr char16_t kNameEnd = 0;
// A count above any child count (one child per 16-bit character) is a leaf's 1 - n.
constexpr uint32_t kMostChildren = 0x10000;

struct RadixNode
{
    std::u16string label;
    uint32_t labelOffset = 0;
    std::vector<uint32_t> entries;
    std::vector<RadixNode> children;
};

// The node for names[first, last), all of which share their first `depth` characters.
RadixNode buildNode(const std::vector<NamedEntry>& names, size_t first, size_t last, size_t depth, bool root)
{
    RadixNode node;
    size_t end = depth;
    if (!root)
    {
        const std::u16string& low = names[first].name;
        const std::u16string& high = names[last - 1].name;
        const auto differ = std::mismatch(low.begin() + ptrdiff_t(depth), low.end(), high.begin() + ptrdiff_t(depth),
                                          high.end());
        end = size_t(differ.first - low.begin());
        node.label = low.substr(depth, end - depth);
        // Names end in kNameEnd and are distinct, so a single name runs out exactly here.
        if (last - first == 1)
        {
            node.entries.push_back(names[first].entry);
            return node;
        }
    }
    for (size_t group = first; group < last;)
    {
        const char16_t character = names[group].name[end];
        size_t groupEnd = group + 1;
        while (groupEnd < last && names[groupEnd].name[end] == character)
        {
            ++groupEnd;
        }
        node.children.push_back(buildNode(names, group, groupEnd, end, false));
        group = groupEnd;
    }
    return node;
}

void packLabels(RadixNode& root, std::vector<uint8_t>& labels)
{
    std::deque<RadixNode*> queue{&root};
    while (!queue.empty())
    {
        RadixNode* node = queue.front();
        queue.pop_front();
        node->labelOffset = uint32_t(labels.size());
        for (const char16_t character : node->label)
        {
            appendVarUint(labels, character);
        }
        for (RadixNode& child : node->children)
        {
            queue.push_back(&child);
        }
    }
}

std::vector<uint8_t> packRecord(const RadixNode& node)
{
    std::vector<uint8_t> record;
    appendVarUint(record, node.labelOffset);
    appendVarUint(record, uint32_t(node.label.size()));
    if (node.children.empty())
    {
        appendVarUint(record, uint32_t(1 - node.entries.size()));
        for (const uint32_t entry : node.entries)
        {
            appendVarUint(record, entry);
        }
        return record;
    }
    std::vector<std::vector<uint8_t>> childRecords;
    childRecords.reserve(node.children.size());
    appendVarUint(record, uint32_t(node.children.size()));
    uint32_t offset = 0;
    for (const RadixNode& child : node.children)
    {
        childRecords.push_back(packRecord(child));
        appendVarUint(record, offset);
        appendVarUint(record, child.label.front());
        offset += uint32_t(childRecords.back().size());
    }
    for (const std::vector<uint8_t>& child : childRecords)
    {
        record.insert(record.end(), child.begin(), child.end());
    }
    return record;
}

// One node with children whose records are being walked.
struct OpenNode
{
    size_t nameLength;    // characters of the name up to and including this node's label
    uint32_t childCount;  // children not yet walked
    size_t listCursor;    // the next (offset, first character) pair
    size_t listEnd;       // where the child offsets count from
};

class TreeWalk
{
public:
    TreeWalk(std::span<const uint8_t> tree, std::span<const uint8_t> labels, uint64_t characterBudget,
             const NameVisitor& visit, std::string& error)
        : m_tree(tree), m_labels(labels), m_budget(characterBudget), m_visit(visit), m_error(error)
    {
    }

    bool run()
    {
        if (m_tree.empty())
        {
            return true;
        }
        if (!walkNode(std::nullopt))
        {
            return false;
        }
        if (m_stopped)
        {
            return true;
        }
        while (!m_open.empty())
        {
            OpenNode& parent = m_open.back();
            if (parent.childCount == 0)
            {
                m_open.pop_back();
                continue;
            }
            --parent.childCount;
            uint32_t offset = 0;
            uint32_t firstCharacter = 0;
            if (!readNumber(parent.listCursor, offset) || !readNumber(parent.listCursor, firstCharacter))
            {
                return false;
            }
            if (parent.listEnd + offset != m_position)
            {
                return fail("a child record does not begin where the record before it ended");
            }
            m_name.resize(parent.nameLength);
            if (!walkNode(char16_t(firstCharacter)))
            {
                return false;
            }
            if (m_stopped)
            {
                return true;
            }
        }
        if (m_position != m_tree.size())
        {
            return fail("the tree stream goes on behind the last record");
        }
        return true;
    }

private:
    bool fail(const std::string& reason)
    {
        m_error = "name tree: " + reason;
        return false;
    }

    bool readNumber(size_t& position, uint32_t& value)
    {
        return readVarUint(m_tree, position, value) || fail("a record runs past the end of the tree stream");
    }

    bool appendLabel(uint32_t offset, uint32_t length, std::optional<char16_t> firstCharacter)
    {
        if (offset > m_labels.size())
        {
            return fail("label offset " + std::to_string(offset) + " lies past the label stream");
        }
        // The name may hold kLongestName characters and its closing 0.
        if (length > kLongestName + 1 - std::min(kLongestName + 1, m_name.size()) || length > m_budget)
        {
            return fail("names longer than the archive can hold");
        }
        m_budget -= length;
        size_t position = offset;
        for (uint32_t i = 0; i < length; ++i)
        {
            uint32_t character = 0;
            if (!readVarUint(m_labels, position, character) || character > 0xFFFF)
            {
                return fail("a label runs past the label stream or holds no 16-bit character");
            }
            m_name.push_back(char16_t(character));
        }
        if (firstCharacter && (length == 0 || m_name[m_name.size() - length] != *firstCharacter))
        {
            return fail("a label does not begin with the character its parent gives");
        }
        return true;
    }

    // Reads the record at m_position; a leaf is visited, a node with children is opened.
    bool walkNode(std::optional<char16_t> firstCharacter)
    {
        uint32_t labelOffset = 0;
        uint32_t labelLength = 0;
        uint32_t count = 0;
        if (!readNumber(m_position, labelOffset) || !readNumber(m_position, labelLength) ||
            !appendLabel(labelOffset, labelLength, firstCharacter) || !readNumber(m_position, count))
        {
            return false;
        }
        if (count == 0 || count > kMostChildren)
        {
            return visitLeaf(uint32_t(1 - count));
        }
        const size_t listStart = m_position;
        for (uint32_t i = 0; i < 2 * count; ++i)
        {
            uint32_t ignored = 0;
            if (!readNumber(m_position, ignored))
            {
                return false;
            }
        }
        m_open.push_back({m_name.size(), count, listStart, m_position});
        return true;
    }

    bool visitLeaf(uint32_t entryCount)
    {
        // Every number takes at least a byte: a count beyond the bytes left is a lie, caught before reserving.
        if (entryCount > m_tree.size() - m_position)
        {
            return fail("a leaf lists more entries than its stream holds");
        }
        if (m_name.empty() || m_name.back() != kNameEnd)
        {
            return fail("a leaf's name does not end");
        }
        m_entries.resize(entryCount);
        for (uint32_t& entry : m_entries)
        {
            if (!readNumber(m_position, entry))
            {
                return false;
            }
        }
        const std::u16string_view name(m_name.data(), m_name.size() - 1);
        if (name.find(kNameEnd) != std::u16string_view::npos)
        {
            return fail("a name holds a 0 character");
        }
        if (name.size() > m_budget)
        {
            return fail("names longer than the archive can hold");
        }
        m_budget -= name.size();
        m_stopped = !m_visit(name, m_entries);
        return true;
    }

    std::span<const uint8_t> m_tree;
    std::span<const uint8_t> m_labels;
    uint64_t m_budget;
    const NameVisitor& m_visit;
    std::string& m_error;
    size_t m_position = 0;
    std::u16string m_name;
    std::vector<uint32_t> m_entries;
    std::vector<OpenNode> m_open;
    bool m_stopped = false;
};

}  // namespace

NameStreams packNames(std::vector<NamedEntry> names)
{
    NameStreams streams;
    if (names.empty())
    {
        return streams;
    }
    for (NamedEntry& named : names)
    {
        named.name.push_back(kNameEnd);
    }
    std::sort(names.begin(), names.end(),
              [](const NamedEntry& a, const NamedEntry& b) { return a.name < b.name; });
    RadixNode root = buildNode(names, 0, names.size(), 0, true);
    packLabels(root, streams.labels);
    streams.tree = packRecord(root);
    return streams;
}

bool unpackNames(std::span<const uint8_t> tree, std::span<const uint8_t> labels, uint64_t characterBudget,
                 const NameVisitor& visit, std::string& error)
{
    return TreeWalk(tree, labels, characterBudget, visit, error).run();
}

}  // namespace HSPC::pack

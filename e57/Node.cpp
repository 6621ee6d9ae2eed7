#include "e57/Node.h"

#include <charconv>

#include "e57/E57Exception.h"

namespace e57
{

namespace
{

const Node* child(const Node& node, std::string_view name)
{
    switch (node.type)
    {
        case NodeType::Structure:
            for (const auto& c : node.children)
                if (c->name == name)
                    return c.get();
            return nullptr;
        case NodeType::Vector:
        {
            size_t index = 0;
            const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), index);
            if (error != std::errc() || end != name.data() + name.size() || index >= node.children.size())
                return nullptr;
            return node.children[index].get();
        }
        case NodeType::CompressedVector:
            if (name == "prototype")
                return node.prototype.get();
            if (name == "codecs")
                return node.codecs.get();
            return nullptr;
        default:
            return nullptr;
    }
}

}  // namespace

const Node* Node::find(std::string_view path) const
{
    const Node* node = this;
    if (!path.empty() && path.front() == '/')
        while (node->parent != nullptr)
            node = node->parent;
    while (node != nullptr && !path.empty())
    {
        const size_t slash = path.find('/');
        const std::string_view name = path.substr(0, slash);
        path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
        if (!name.empty())
            node = child(*node, name);
    }
    return node;
}

const Node& Node::at(std::string_view path) const
{
    const Node* node = find(path);
    if (node == nullptr)
        E57_THROW(ErrorCode::PathUndefined, "no element " + std::string(path) + " below " + pathName());
    return *node;
}

void Node::requireNumbers() const
{
    if (malformedNumber)
        E57_THROW(ErrorCode::BadXmlFormat, pathName() + ": " + stringValue + " is not a number");
}

double Node::numericValue() const
{
    requireNumbers();
    switch (type)
    {
        case NodeType::Integer:
            return static_cast<double>(integerValue);
        case NodeType::ScaledInteger:
            return static_cast<double>(integerValue) * scale + offset;
        case NodeType::Float:
            return floatValue;
        default:
            E57_THROW(ErrorCode::ExpectingNumeric, pathName() + " is not a number");
    }
}

std::string Node::pathName() const
{
    if (parent == nullptr)
        return "/";
    std::string path;
    for (const Node* node = this; node->parent != nullptr; node = node->parent)
        path.insert(0, "/" + node->name);
    return path;
}

}  // namespace e57

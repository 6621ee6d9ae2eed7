// The names of a pack archive as a radix tree of 16-bit characters, in two streams of variable-length
// numbers. A node's record:
//   label offset (bytes into the label stream), label length (characters);
//   a leaf: 1 - (count of entry numbers) as u32, then the entry numbers;
//   a node with children: the child count, per child its record's offset from the end of this list and its
//   first character, then the children's records in the order of their first characters.
// The label stream holds the labels in breadth-first order, one number per character. The root's label is
// empty. Every name ends in a 0 character in the tree, so that a name that begins another still ends in a
// leaf of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace HSPC::pack
{

// The longest name the tree takes, in 16-bit characters; far beyond any path.
inline constexpr size_t kLongestName = 4096;

struct NamedEntry
{
    std::u16string name;  // without 0 characters
    uint32_t entry = 0;
};

struct NameStreams
{
    std::vector<uint8_t> tree;
    std::vector<uint8_t> labels;
};

// Both streams empty for no names. The names must be distinct.
NameStreams packNames(std::vector<NamedEntry> names);

using NameVisitor = std::function<bool(std::u16string_view name, std::span<const uint32_t> entries)>;

// Walks the tree and hands every leaf's name and entry numbers to `visit`, which may stop the walk by
// returning false. A tree from another writer is checked as it is walked: every record must begin where the
// one before it ended (no record is read twice, so no loop and no shared subtree), labels must lie in their
// stream and begin with the character their parent gives, names are at most kLongestName characters, and
// the label characters read plus the characters of the names visited stay within `characterBudget`. False, with the reason in `error`, for a tree that breaks
// any of this; the names visited until then stand.
bool unpackNames(std::span<const uint8_t> tree, std::span<const uint8_t> labels, uint64_t characterBudget,
                 const NameVisitor& visit, std::string& error);

}  // namespace HSPC::pack

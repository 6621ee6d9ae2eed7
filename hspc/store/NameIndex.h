// The names of an open pack archive and the entry each one points at. Names stand in one list whose first
// part is sorted; names added since the last sort stand behind it, each marked in a bit array by its FNV-1a
// hash. A lookup searches the sorted part, and only when the name's bit is set sorts the whole list and
// searches again, so adding a new name costs no sort.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace HSPC
{

class NameIndex
{
public:
    NameIndex();

    std::optional<uint32_t> find(const std::string& name);
    // Points `name` at `entry`, adding the name when it is new.
    void set(const std::string& name, uint32_t entry);
    // False when there was no such name.
    bool erase(const std::string& name);
    void clear();
    // Replaces every name at once, e.g. with those of an archive's directory; the names must be distinct.
    void assign(std::vector<std::pair<std::string, uint32_t>> names);

    size_t size() const { return m_names.size(); }
    // Every name with its entry, in no particular order.
    const std::vector<std::pair<std::string, uint32_t>>& names() const { return m_names; }
    // Replaces every entry number e by renumber(e); the names stay.
    void renumber(const std::function<uint32_t(uint32_t)>& renumber);

private:
    std::pair<std::string, uint32_t>* slot(const std::string& name);
    std::pair<std::string, uint32_t>* searchSorted(const std::string& name);
    void sortAll();
    size_t bitOf(const std::string& name) const;

    std::vector<std::pair<std::string, uint32_t>> m_names;
    size_t m_sortedCount = 0;
    std::vector<uint64_t> m_recentBits;
};

// FNV-1a of 64 bits.
uint64_t fnv1a64(const std::string& text);

}  // namespace HSPC

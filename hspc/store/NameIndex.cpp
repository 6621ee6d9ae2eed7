#include "hspc/store/NameIndex.h"

#include <algorithm>

namespace HSPC
{

namespace
{

constexpr size_t kRecentBits = size_t(1) << 20;
// Past this many unsorted names a miss would find its bit set too often; they are merged in ahead of time.
constexpr size_t kMostRecentNames = kRecentBits / 16;

bool byName(const std::pair<std::string, uint32_t>& a, const std::pair<std::string, uint32_t>& b)
{
    return a.first < b.first;
}

}  // namespace

uint64_t fnv1a64(const std::string& text)
{
    uint64_t hash = 0xcbf29ce484222325ull;
    for (const char c : text)
    {
        hash ^= uint8_t(c);
        hash *= 0x100000001b3ull;
    }
    return hash;
}

NameIndex::NameIndex() : m_recentBits(kRecentBits / 64, 0) {}

size_t NameIndex::bitOf(const std::string& name) const
{
    return size_t(fnv1a64(name) % kRecentBits);
}

std::pair<std::string, uint32_t>* NameIndex::searchSorted(const std::string& name)
{
    const auto sortedEnd = m_names.begin() + ptrdiff_t(m_sortedCount);
    const auto found = std::lower_bound(m_names.begin(), sortedEnd, std::pair<std::string, uint32_t>{name, 0},
                                        byName);
    return found != sortedEnd && found->first == name ? &*found : nullptr;
}

void NameIndex::sortAll()
{
    const auto sortedEnd = m_names.begin() + ptrdiff_t(m_sortedCount);
    std::sort(sortedEnd, m_names.end(), byName);
    std::inplace_merge(m_names.begin(), sortedEnd, m_names.end(), byName);
    m_sortedCount = m_names.size();
    std::fill(m_recentBits.begin(), m_recentBits.end(), 0);
}

std::pair<std::string, uint32_t>* NameIndex::slot(const std::string& name)
{
    if (auto* found = searchSorted(name))
    {
        return found;
    }
    const size_t bit = bitOf(name);
    if ((m_recentBits[bit / 64] >> (bit % 64) & 1) == 0)
    {
        return nullptr;
    }
    sortAll();
    return searchSorted(name);
}

std::optional<uint32_t> NameIndex::find(const std::string& name)
{
    const auto* found = slot(name);
    return found != nullptr ? std::optional<uint32_t>(found->second) : std::nullopt;
}

void NameIndex::set(const std::string& name, uint32_t entry)
{
    if (auto* found = slot(name))
    {
        found->second = entry;
        return;
    }
    if (m_names.size() - m_sortedCount >= kMostRecentNames)
    {
        sortAll();
    }
    m_names.emplace_back(name, entry);
    const size_t bit = bitOf(name);
    m_recentBits[bit / 64] |= uint64_t(1) << (bit % 64);
}

bool NameIndex::erase(const std::string& name)
{
    auto* found = slot(name);
    if (found == nullptr)
    {
        return false;
    }
    // Erasing from the sorted part keeps it sorted; erasing from behind it moves no sorted name.
    const auto position = m_names.begin() + (found - m_names.data());
    if (size_t(found - m_names.data()) < m_sortedCount)
    {
        --m_sortedCount;
    }
    m_names.erase(position);
    return true;
}

void NameIndex::clear()
{
    m_names.clear();
    m_sortedCount = 0;
    std::fill(m_recentBits.begin(), m_recentBits.end(), 0);
}

void NameIndex::assign(std::vector<std::pair<std::string, uint32_t>> names)
{
    clear();
    m_names = std::move(names);
    std::sort(m_names.begin(), m_names.end(), byName);
    m_sortedCount = m_names.size();
}

void NameIndex::renumber(const std::function<uint32_t(uint32_t)>& renumber)
{
    for (auto& named : m_names)
    {
        named.second = renumber(named.second);
    }
}

}  // namespace HSPC

// Names taken in in any order and given out sorted by their bytes. No step takes long, however
// many there are: the order is kept as a heap, and nothing is sorted as a whole.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace agent {

class CNameQueue {
    // Of two beginnings: whether the first stands behind the second.
    struct CBehind {
        const std::vector<char>& names;
        bool operator()(std::uint32_t dwA, std::uint32_t dwB) const {
            return std::strcmp(names.data() + dwA, names.data() + dwB) > 0;
        }
    };

  public:
    // False when the name would bring the bytes over the bound, 4 for each name included.
    bool Push(std::string_view strName, std::size_t dwMaxBytes) {
        const std::size_t dwBytes = m_names.size() + strName.size() + 1;
        if (dwBytes + (m_heap.size() + 1) * sizeof(m_heap[0]) > dwMaxBytes) {
            return false;
        }
        m_heap.push_back(static_cast<std::uint32_t>(m_names.size()));
        m_names.insert(m_names.end(), strName.begin(), strName.end());
        m_names.push_back('\0');
        std::push_heap(m_heap.begin(), m_heap.end(), CBehind{m_names});
        return true;
    }

    // The first of those that are left, of which there is one. Valid until the next Push.
    std::string_view Pop() {
        std::pop_heap(m_heap.begin(), m_heap.end(), CBehind{m_names});
        const std::uint32_t dwAt = m_heap.back();
        m_heap.pop_back();
        return m_names.data() + dwAt;
    }

    std::size_t Size() const { return m_heap.size(); }

  private:
    std::vector<char> m_names;         // each with its terminator
    std::vector<std::uint32_t> m_heap; // where they begin
};

} // namespace agent

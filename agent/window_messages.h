// Message numbers by name, for the life of the agent.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace agent {

class CWindowMessages {
  public:
    static constexpr std::uint32_t FIRST = 0xC000;
    static constexpr std::uint32_t LAST = 0xFFFF;
    static constexpr std::size_t MOST_CHARS = 255;

    // The number of the name, the same for every call. 0 for an empty, too long or malformed name,
    // and for a new one when all numbers are in use: none is ever given to another name.
    std::uint32_t Register(const std::u16string& strName);

    // UTF-8; empty for a number that has none.
    std::string NameOf(std::uint32_t uMessage) const;

  private:
    std::map<std::string, std::uint32_t> m_numbers;
    std::vector<std::string> m_names;
};

} // namespace agent

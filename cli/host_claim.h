// A name that one process of this computer has at a time. The system takes it back when the process
// ends, however that happens. One file a system: host_claim_posix.cpp, host_claim_windows.cpp.
#pragma once

#include <cstdint>
#include <string>

namespace cli {

class CHostClaim {
  public:
    explicit CHostClaim(const std::string& strName);
    ~CHostClaim();
    CHostClaim(const CHostClaim&) = delete;
    CHostClaim& operator=(const CHostClaim&) = delete;

    // False when another process has the name, or the system gives none.
    bool Holds() const { return m_nSystemsOwn != NONE; }

  private:
    static constexpr std::intptr_t NONE = -1;

    std::intptr_t m_nSystemsOwn = NONE;
};

} // namespace cli

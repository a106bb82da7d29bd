#include "cli/host_claim.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>

namespace cli {

// A socket's name that is in no file system: there is nothing that could be left behind.
CHostClaim::CHostClaim(const std::string& strName) {
    sockaddr_un address = {AF_UNIX, {}};
    const std::size_t nLength = strName.copy(&address.sun_path[1], sizeof(address.sun_path) - 1);
    const int nSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (nSocket < 0) {
        return;
    }
    const auto nBytes = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + nLength);
    if (bind(nSocket, reinterpret_cast<const sockaddr*>(&address), nBytes) == 0) {
        m_nSystemsOwn = nSocket;
    } else {
        close(nSocket);
    }
}

CHostClaim::~CHostClaim() {
    if (Holds()) {
        close(static_cast<int>(m_nSystemsOwn));
    }
}

} // namespace cli

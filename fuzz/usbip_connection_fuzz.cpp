// The agent's end of USB/IP against any client: the input is what the client sends, in pieces, each
// behind a byte with its length.

#include "agent/posix/usbip_connection.h"
#include "fuzz/fuzz_device.h"

#include <algorithm>
#include <cstdlib>

#include <sys/socket.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* lpData, std::size_t dwSize) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) != 0) {
        std::abort();
    }
    agent::CUsbipConnection connection{agent::CFd(fds[0])};
    agent::CAgentCore core(FuzzDevice());
    using EImport = agent::CUsbipConnection::EImport;
    EImport eImport = EImport::WAITING;
    bool bServes = true;
    while (dwSize > 0 && bServes && eImport != EImport::REFUSED) {
        const std::size_t dwPiece = std::min<std::size_t>(*lpData, dwSize - 1);
        (void)!::write(fds[1], lpData + 1, dwPiece);
        lpData += 1 + dwPiece;
        dwSize -= 1 + dwPiece;
        bServes = !connection.WantsInput() || connection.Fill();
        if (eImport == EImport::WAITING) {
            eImport = connection.LookForImport();
            eImport == EImport::ASKED ? connection.AnswerImport() : void();
        }
        if (bServes && eImport == EImport::ASKED) {
            bServes = connection.Work(core) == nullptr;
        }
        // A client may leave its answers lying.
        static std::uint8_t s_answers[1 << 16];
        if (dwPiece % 8 != 0) {
            (void)!::read(fds[1], s_answers, sizeof(s_answers));
        }
    }
    ::close(fds[1]);
    return 0;
}

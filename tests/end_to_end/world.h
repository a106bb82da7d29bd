// A world for each end-to-end test: a computer with a device attached. On Linux the device is an
// agent's process on a folder (world_posix.cpp); on Windows the agent's core on a device in memory,
// in this process, behind a pipe that the system takes for a device (world_windows.cpp).
#pragma once

#include "tests/support/process.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace end_to_end {

using test::CProgram;
using test::CSurroundings;
using test::Eventually;
using test::TREE;

enum class EWay { ToDevice, ToHost };

class CWorld {
  public:
    CWorld();
    ~CWorld();
    CWorld(const CWorld&) = delete;
    CWorld& operator=(const CWorld&) = delete;

    // Bytes to the device, or to the host, behind which a copy is troubled, and those behind which
    // a command falls silent: from its handshake into its response.
    static const std::vector<std::uint64_t> MOMENTS;
    static const std::vector<std::pair<EWay, std::uint64_t>> OF_A_COMMAND;
    static const int OTHER_INTERRUPT; // beside Ctrl-C

    // The device has a storage "Card", runs programs, and formats. Its files outlive it.
    void Plug();
    void Unplug(); // in the middle of whatever it does
    // From now on: when so many bytes have passed it, 0 at once, the device does nothing more.
    void HoldAfter(EWay way, std::uint64_t qwBytes);
    bool Holds() const;
    void GoOn();
    bool DeviceSays(const std::string& strText) const; // to its owner

    TREE Files() const;                 // of the device
    void WriteFiles(const TREE& files); // a program there ends with the number in its argument

    // A program of this build, by its name and with its arguments, in the folder "host".
    std::unique_ptr<CProgram> Start(std::vector<std::string> words, CSurroundings found = {}) const;
    std::unique_ptr<CProgram> Run(std::vector<std::string> words, CSurroundings found = {}) const {
        std::unique_ptr<CProgram> pProgram = Start(std::move(words), std::move(found));
        pProgram->End();
        return pProgram;
    }

    const test::CTempFolder folder;

  private:
    class CDevice;
    std::unique_ptr<CDevice> m_pDevice;
};

// A terminal of 100 columns, for one program at a time.
class CTerminal {
  public:
    CTerminal();
    ~CTerminal();
    CTerminal(const CTerminal&) = delete;
    CTerminal& operator=(const CTerminal&) = delete;

    CSurroundings ForProgram() const;
    void Type(const std::string& strKeys); // "\r" is Enter, "\x03" Ctrl-C, "\x04" ends the input
    std::string Shown();                   // in the end the line that the cursor is in

  private:
    int m_nOurs = -1;
    std::string m_strShown;
};

} // namespace end_to_end

// A world for each end-to-end test: a computer with a device. On Linux the device is the agent's
// process on a folder (world_posix.cpp); on Windows it is the agent's core on a device in memory,
// in this process, behind a pipe that the system takes for a device (world_windows.cpp).
#pragma once

#include "tests/support/process.h"

#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace end_to_end {

using test::CProgram;
using test::CSurroundings;
using test::Eventually;
using test::TREE;

enum class EWay { ToDevice, ToHost };

// It has a storage "Card", room for 20 MB, runs programs, and formats. Its files outlive an Unplug.
class IDevice {
  public:
    virtual ~IDevice() = default;

    virtual void Plug() = 0;
    virtual void Unplug() = 0; // in the middle of whatever it does
    // From now on: when so many bytes have passed, with 0 at once, it does nothing more.
    virtual void HoldAfter(EWay way, std::uint64_t qwBytes) = 0;
    virtual bool Holds() const = 0;
    virtual void GoOn() = 0;

    virtual TREE Files() const = 0;
    virtual void Write(const TREE& files) = 0; // a program ends with the number in its argument
    virtual bool Says(const std::string& strText) const = 0; // to its owner
};
std::unique_ptr<IDevice> MakeDevice(const test::CTempFolder& folder);

// What the devices of this system are put through: troubles of a copy, the bytes behind which they
// come, and those behind which a command meets silence, from its handshake into its response.
enum class ETrouble { Cancelled, EndedAtOnce, Killed, Unplugged, BothGone };
extern const std::vector<ETrouble> g_copyTroubles;
extern const std::vector<std::uint64_t> g_copyMoments;
extern const std::vector<std::pair<EWay, std::uint64_t>> g_commandMoments;
extern const int g_nOtherInterrupt; // beside Ctrl-C

std::string PathOfProgram(const std::string& strName); // of this build

struct CWorld {
    // A program of this build and its arguments, between blanks, in the folder "host".
    std::unique_ptr<CProgram> Start(const std::string& strLine, CSurroundings found = {}) const {
        std::istringstream stream(strLine);
        std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
        words[0] = PathOfProgram(words[0]);
        found.strFolder = folder.Path("host");
        return std::make_unique<CProgram>(words, std::move(found));
    }
    std::unique_ptr<CProgram> Run(const std::string& strLine, CSurroundings found = {}) const {
        auto pProgram = Start(strLine, std::move(found));
        pProgram->End();
        return pProgram;
    }

    const test::CTempFolder folder;
    const std::unique_ptr<IDevice> pDevice = MakeDevice(folder);
};

// A terminal of 100 columns, for one program at a time.
class ITerminal {
  public:
    virtual ~ITerminal() = default;
    virtual CSurroundings ForProgram() const = 0;
    virtual void Type(const std::string& strKeys) = 0; // \r: Enter, \4: the input's end, \3: Ctrl-C
    virtual std::string Shown() = 0;                   // in the end the line that the cursor is in
};
std::unique_ptr<ITerminal> MakeTerminal();

} // namespace end_to_end

// A device that follows a script: it checks every package that the host writes, and its time, and
// gives what the script says.
//
//     sim::CScriptedDevice device(world); // answers handshakes by itself
//     device.Expect(sim::Command(DAK_FUNC_DELETE_FILE, sim::Text(DAK_WIDE("\\a")))).At(320)
//         .Reply(sim::Ack())
//         .ReplyAfter(1000, sim::Response(DAK_FUNC_DELETE_FILE, 1));
//
// A step that expects waits for the host's next package; the steps behind it follow at once, up to
// the next one that waits; at the head of a script they are done as they are added. A package that
// differs, comes with no step for it, or at another time fails the test, as do steps that are left
// at the end.
//
// Replies are packages: a read gets at most the rest of one. They queue up until the host takes
// them, also across a closing of the node; a handshake drops them.
#pragma once

#include "tests/sim/world.h"

#include <deque>

namespace sim {

class CScriptedDevice : public IPeer {
  public:
    struct CPackage {
        Bytes bytes;
        std::uint64_t qwMs; // when it came, or is there for the host
    };

    explicit CScriptedDevice(CWorld& world) : m_world(world) { m_world.Plug(*this); }
    ~CScriptedDevice() override;

    // Steps that wait for a package.
    CScriptedDevice& Expect(Bytes package);
    template <class... TParts>
    CScriptedDevice& ExpectCommand(std::uint16_t codeFunc, const TParts&... payload) {
        return Expect(Command(codeFunc, payload...));
    }
    CScriptedDevice& ExpectThat(std::function<void(const Bytes&)> check);
    // The handshake, answered well, or with the given reply; an empty one means silence.
    CScriptedDevice& ExpectHandshake(std::uint32_t dwWord) {
        return ExpectHandshake(dwWord, Handshake(dwWord, DAK_PROTOCOL_VERSION));
    }
    CScriptedDevice& ExpectHandshake(std::uint32_t dwWord, Bytes reply);
    // The next write hangs until the host stops it.
    CScriptedDevice& DoNotTake();
    // The virtual time at which the package of the latest step that waits must come (be stopped).
    CScriptedDevice& At(std::uint64_t qwMs);

    // Steps that do something.
    CScriptedDevice& Do(std::function<void()> action);
    CScriptedDevice& Reply(Bytes package) { return ReplyAfter(0, std::move(package)); }
    CScriptedDevice& ReplyAfter(std::uint64_t qwMs, Bytes package);
    CScriptedDevice& Vanish() {
        return Do([this] { m_world.Unplug(*this); });
    }
    CScriptedDevice& VanishAfter(std::uint64_t qwMs);
    CScriptedDevice& VanishAtQuestion(std::uint64_t nNumber) {
        return Do([this, nNumber] { m_world.UnplugAtQuestion(nNumber); });
    }

    // Handshakes for which no step waits are answered well and recorded (the default), or taken as
    // any package.
    void ServeHandshakes(bool bServe = true) { m_bServeHandshakes = bServe; }
    // Takes the packages for which there is no step.
    std::function<void(const Bytes&)> onPackage;

    // Outside a script: lays a package ready.
    void Give(Bytes package, std::uint64_t qwAfterMs = 0);

    // The handshakes that were served.
    const std::vector<CPackage>& Handshakes() const { return m_handshakes; }
    // Times the node was opened, and is open now.
    int Opens() const { return m_nOpens; }
    int OpenNow() const { return m_nOpenNow; }

    void SetTime(std::uint64_t qwNowMs) override { m_qwToldMs = qwNowMs; }
    bool TakePackage(std::span<const std::uint8_t> package) override;
    std::optional<std::size_t> GiveBytes(std::span<std::uint8_t> buffer) override;
    std::optional<std::uint64_t> NextDueMs() override;
    void TransferStopped(bool bWrite) override;
    void Opened() override;
    void Closed() override { --m_nOpenNow; }
    void Unplugged() override { m_nOpenNow = 0; }

  private:
    struct CStep {
        int nNumber;
        bool bDoNotTake;
        std::optional<std::uint32_t> dwHandshake;
        std::function<void(const Bytes&)> take; // of a step that waits
        std::function<void()> action;           // of one that does not
        std::optional<std::uint64_t> qwAtMs;
    };
    CStep& AddStep();
    CStep TakeStep();
    void RunActions();
    void Answer(const Bytes& reply);
    void Compare(const Bytes& expected, const Bytes& got, int nStep) const;

    CWorld& m_world;
    std::deque<CStep> m_steps;
    std::deque<CPackage> m_pending;
    std::vector<CPackage> m_handshakes;
    std::uint64_t m_qwToldMs = 0;
    int m_nSteps = 0;
    int m_nOpens = 0;
    int m_nOpenNow = 0;
    bool m_bServeHandshakes = true;
};

} // namespace sim

// Handles, threads, waits, the lock, and messages.
#include "platform/message.h"
#include "platform/message_window.h"
#include "tests/platform/contract_world.h"
#include "tests/platform/platform_tools.h"

#include <atomic>
#include <memory>

namespace platform::tests {

// A lock's handle for a scope; the error number is that of its making.
struct CLockHandle {
    explicit CLockHandle(const char* lpszName)
        : hLock(CreateMutexA(nullptr, FALSE, lpszName)), dwError(GetLastError()) {}
    ~CLockHandle() { CloseHandle(hLock); }
    CLockHandle(const CLockHandle&) = delete;
    CLockHandle& operator=(const CLockHandle&) = delete;
    operator HANDLE() const { return hLock; }
    DWORD Wait(DWORD dwMs) const { return WaitForSingleObject(hLock, dwMs); }

    const HANDLE hLock;
    const DWORD dwError;
};

CONTRACT_TEST(Handles, ThatAreNotOpenOrOfAnotherKindAreRefused) {
    char ch = 'x';
    DWORD dwCount = 77;
    FILETIME time{};
    const auto isNoFile = [&](HANDLE hBad) {
        return !ReadFile(hBad, &ch, 1, &dwCount) && !WriteFile(hBad, &ch, 1, &dwCount) &&
               dwCount == 77 && GetFileSize(hBad, nullptr) == INVALID_FILE_SIZE &&
               SetFilePointer(hBad, 0, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER &&
               !platform::GetFileTime(hBad, &time, nullptr, nullptr) &&
               !platform::SetFileTime(hBad, &time, nullptr, nullptr);
    };
    const auto isNoThread = [](HANDLE hBad) {
        return ResumeThread(hBad) == 0xFFFFFFFF && !TerminateThread(hBad, 0);
    };
    // Open to the end: a system may give a closed handle's number to the next one.
    const CLockHandle lock(nullptr);
    HANDLE hFile = Open(contract::Folder() + "\\a", GENERIC_WRITE, CREATE_NEW);
    EXPECT_TRUE(isNoFile(lock) && isNoThread(lock) && isNoThread(hFile) && !ReleaseMutex(hFile) &&
                CloseHandle(hFile));
    for (HANDLE hBad : {hFile, HANDLE{nullptr}, INVALID_HANDLE_VALUE}) {
        EXPECT_TRUE(isNoFile(hBad) && isNoThread(hBad) && !ReleaseMutex(hBad) &&
                    WaitForSingleObject(hBad, 0) == WAIT_FAILED);
        EXPECT_TRUE(!CloseHandle(hBad) && GetLastError() == ERROR_INVALID_HANDLE);
    }
}

CONTRACT_TEST(Threads, ASuspendedOneRunsWhenItIsResumedOrNever) {
    for (const bool bResumed : {true, false}) {
        bool bRan = false;
        const CTask task([&] { bRan = true; }, CREATE_SUSPENDED);
        EXPECT_FALSE(task.EndsWithin(SETTLE_MS));
        EXPECT_TRUE(!bResumed || (ResumeThread(task.Handle()) == 1 && task.Ends()));
        EXPECT_TRUE(task.IsStopped());
        EXPECT_EQ(bRan, bResumed);
        EXPECT_EQ(ResumeThread(task.Handle()), 0xFFFFFFFF);
    }
}

CONTRACT_TEST(Threads, AStopEndsEveryBlockingCallNowAndLater) {
    static DWORD dwWord;
    dwWord = 5;
    constexpr DWORD FOR_AGES_MS = 600000;
    const CLockHandle held(nullptr);
    ASSERT_EQ(held.Wait(0), WAIT_OBJECT_0);
    const CTask sleeper([] { Sleep(INFINITE); });
    EXPECT_EQ(ResumeThread(sleeper.Handle()), 0xFFFFFFFF) << "it runs";
    char ch = 'x';
    DWORD dwCount = 77;
    const HANDLE hFile = Open(contract::Folder() + "\\a", GENERIC_WRITE, CREATE_NEW);
    const std::function<bool()> fail[] = {
        [] { return Sleep(FOR_AGES_MS), true; },
        [&] { return held.Wait(FOR_AGES_MS) == WAIT_FAILED; },
        [&] { return WaitForSingleObject(sleeper.Handle(), INFINITE) == WAIT_FAILED; },
        [] { return WaitOnAddress(&dwWord, 5, INFINITE) == FALSE; },
    };
    for (const auto& call : fail) {
        SCOPED_TRACE(&call - fail);
        const std::uint64_t qwStart = contract::NowMs();
        int nFailed = 0;
        const CTask task([&] {
            nFailed += call() ? 1 : 0;
            for (const auto& later : fail) {
                nFailed += later() ? 1 : 0;
            }
            EXPECT_TRUE(!WriteFile(hFile, &ch, 1, &dwCount) && dwCount == 77);
        });
        EXPECT_TRUE(task.IsStoppedWhileBlocked());
        EXPECT_EQ(nFailed, 5);
        EXPECT_TRUE(task.IsStopped()) << "a second time";
        EXPECT_LT(contract::NowMs() - qwStart, AT_ONCE_MS);
    }
    EXPECT_TRUE(CloseHandle(hFile));
}

CONTRACT_TEST(Threads, WaitsEndWithWhatTheyWaitForOrAtTheirTimeOut) {
    static DWORD dwWord;
    dwWord = 1;
    const auto passed = [qwStart = contract::NowMs()] { return contract::NowMs() - qwStart; };
    const auto awaitChange = [&] {
        Sleep(0);
        Sleep(30);
        EXPECT_GE(passed(), 30U);
        EXPECT_TRUE(!CloseHandle(nullptr) && GetLastError() == ERROR_INVALID_HANDLE);
        while (std::atomic_ref<DWORD>(dwWord).load() == 1) {
            WaitOnAddress(&dwWord, 1, INFINITE);
        }
    };
    const CTask first(awaitChange);
    const CTask second(awaitChange);
    EXPECT_TRUE(WaitOnAddress(&dwWord, 2, INFINITE)) << "it differs already";
    while (WaitOnAddress(&dwWord, 1, 60) != FALSE) {
    }
    EXPECT_EQ(GetLastError(), WAIT_TIMEOUT) << "the error number is the thread's own";
    EXPECT_GE(passed(), 60U);
    EXPECT_EQ(WaitForSingleObject(first.Handle(), 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(first.Handle(), 30), WAIT_TIMEOUT);
    EXPECT_GE(passed(), 90U);
    const auto change = [](void*) -> DWORD {
        Sleep(SETTLE_MS);
        std::atomic_ref<DWORD>(dwWord).store(9);
        WakeByAddressAll(&dwWord);
        return 0;
    };
    // A closed handle does not stop the thread.
    EXPECT_TRUE(CloseHandle(CreateThread(nullptr, 0, change, nullptr, 0, nullptr)));
    EXPECT_EQ(WaitForSingleObject(first.Handle(), INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(second.Ends() && first.EndsWithin(0)) << "ended for good";
}

CONTRACT_TEST(Lock, LastsAsLongAsOneOfItsHandles) {
    for (int nRound = 0; nRound < 2; ++nRound) {
        auto first = std::make_unique<CLockHandle>("TheLock");
        const CLockHandle second("TheLock");
        EXPECT_TRUE(first->dwError == 0 && second.dwError == ERROR_ALREADY_EXISTS);
        EXPECT_TRUE(CLockHandle("TheOtherLock").dwError == 0 && CLockHandle(nullptr).dwError == 0);
        // The handles share the hold, which ends with the last of them.
        EXPECT_EQ(first->Wait(INFINITE), WAIT_OBJECT_0);
        first.reset();
        EXPECT_EQ(second.Wait(10), WAIT_TIMEOUT);
        EXPECT_EQ(CLockHandle("TheLock").dwError, ERROR_ALREADY_EXISTS);
    }
}

CONTRACT_TEST(Lock, IsHeldOnceAndByNoThreadInParticular) {
    const CLockHandle lock("TheLock");
    EXPECT_FALSE(ReleaseMutex(lock)) << "not held";
    EXPECT_EQ(lock.Wait(0), WAIT_OBJECT_0);
    EXPECT_TRUE(CTask([&] { lock.Wait(INFINITE); }).IsStoppedWhileBlocked());
    const CTask waiter([&] { EXPECT_EQ(lock.Wait(INFINITE), WAIT_OBJECT_0); });
    EXPECT_FALSE(waiter.EndsWithin(SETTLE_MS));
    const CTask releaser([&] { EXPECT_TRUE(ReleaseMutex(lock)); });
    EXPECT_TRUE(waiter.Ends());
    const std::uint64_t qwStart = contract::NowMs();
    EXPECT_EQ(lock.Wait(30), WAIT_TIMEOUT) << "the ended waiter's hold is still there";
    EXPECT_GE(contract::NowMs() - qwStart, 30U);
    EXPECT_TRUE(ReleaseMutex(lock));
    EXPECT_FALSE(ReleaseMutex(lock)) << "nor is it held by the waiter that was stopped";
}

CONTRACT_TEST(Messages, ArriveInTheirOrderOrAreRefused) {
    HWND hWnd = CreateMessageWindow();
    WINDOWMESSAGE message{};
    const std::uint64_t qwStart = contract::NowMs();
    EXPECT_FALSE(WaitWindowMessage(hWnd, 30, &message));
    EXPECT_GE(contract::NowMs() - qwStart + 1, 30U);
    EXPECT_TRUE(platform::PostMessageA(hWnd, 3028, 0, 0));
    const CTask poster([hWnd] {
        Sleep(SETTLE_MS);
        EXPECT_TRUE(platform::PostMessageA(hWnd, WM_USER, 7, -9));
    });
    EXPECT_TRUE(WaitWindowMessage(hWnd, 0, &message) && message.message == 3028);
    EXPECT_TRUE(WaitWindowMessage(hWnd, INFINITE, &message));
    EXPECT_TRUE(message.message == WM_USER && message.wParam == 7 && message.lParam == -9);
    EXPECT_FALSE(WaitWindowMessage(hWnd, 0, &message));
    EXPECT_TRUE(poster.Ends() && DestroyMessageWindow(hWnd));
    for (HWND hGone : {hWnd, HWND{nullptr}}) {
        EXPECT_FALSE(platform::PostMessageA(hGone, 3028, 0, 0) ||
                     WaitWindowMessage(hGone, 0, &message) || DestroyMessageWindow(hGone));
        EXPECT_EQ(GetMessageWindowDescriptor(hGone), -1);
    }
}

} // namespace platform::tests

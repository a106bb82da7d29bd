// What the world's implementation of the seam is made of. What a world does not simulate is done by
// the system's own implementation, compiled a second time with `platform` under another name: text,
// memory, files, and the table of handles, in which everything that a world gives out stands.
#pragma once

#include "platform/device.h"
#include "platform/file.h"
#include "platform/memory.h"
#include "platform/message.h"
#include "platform/process.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "tests/sim/world.h"

#define platform real_platform
#include "platform/posix/handles.h"
#undef platform

namespace real_platform {

decltype(platform::CloseHandle) CloseHandle;
decltype(platform::CreateDirectoryA) CreateDirectoryA;
decltype(platform::CreateFileA) CreateFileA;
decltype(platform::DeleteFileA) DeleteFileA;
decltype(platform::GetDiskFreeSpaceExA) GetDiskFreeSpaceExA;
decltype(platform::GetFileSize) GetFileSize;
decltype(platform::GetFileTime) GetFileTime;
decltype(platform::GetLastError) GetLastError;
decltype(platform::GetTempFileNameA) GetTempFileNameA;
decltype(platform::LocalAlloc) LocalAlloc;
decltype(platform::LocalFree) LocalFree;
decltype(platform::lstrcpyA) lstrcpyA;
decltype(platform::MoveFileExA) MoveFileExA;
decltype(platform::MultiByteToWideChar) MultiByteToWideChar;
decltype(platform::ReadFile) ReadFile;
decltype(platform::SetFileAttributesA) SetFileAttributesA;
decltype(platform::SetFilePointer) SetFilePointer;
decltype(platform::SetFileTime) SetFileTime;
decltype(platform::WideCharToMultiByte) WideCharToMultiByte;
decltype(platform::WriteFile) WriteFile;

} // namespace real_platform

namespace sim {

using real_platform::posix::CObject;
using real_platform::posix::FindObject;

// Sets the calling thread's error number and returns what a failing call returns.
inline BOOL FailWith(DWORD dwError) {
    real_platform::posix::SetLastError(dwError);
    return FALSE;
}

// Every call of the seam goes through here: it is counted, fails as planned, is told in the trace
// when it fails, and otherwise is what its body does.
template <class TResult, class TBody>
TResult Call(ECall eCall, TResult failed, TBody body) {
    CWorld* pWorld = CWorld::Current();
    if (pWorld == nullptr || !pWorld->Enter(eCall)) {
        return failed;
    }
    const TResult result = body(*pWorld);
    if (result == failed) {
        pWorld->Note("failed ", CallName(eCall), ", error ", real_platform::GetLastError());
    }
    return result;
}

// The same for a body of the real implementation's.
template <class TResult, class... TParameters, class... TArguments>
TResult Call(ECall eCall, TResult failed, TResult (*body)(TParameters...),
             const TArguments&... arguments) {
    return Call(eCall, failed, [&](CWorld& /*world*/) { return body(arguments...); });
}

// Enters an object into the table of handles, and into the world's list of what is open.
inline HANDLE GiveHandle(CWorld& world, std::shared_ptr<CObject> pObject, std::string strWhat) {
    const HANDLE hObject = real_platform::posix::AddHandle(std::move(pObject));
    world.handles[hObject] = std::move(strWhat);
    return hObject;
}

// Takes it out of both, whatever it is.
inline BOOL CloseObject(CWorld& world, HANDLE hObject) {
    const auto pObject = real_platform::posix::FindAnyObject(hObject);
    world.handles.erase(hObject);
    return real_platform::posix::RemoveHandle(hObject, pObject.get()) ? TRUE : FALSE;
}

// What WaitForSingleObject waits for.
class CWaitable : public CObject {
  public:
    // Whether it has come; a lock is taken then.
    virtual bool Take() = 0;
    virtual const void* Key() const = 0;
    virtual const char* What() const = 0;
    virtual std::uint64_t Number() const { return 0; }
};

class CThread : public CWaitable {
  public:
    enum class EState { Suspended, Ready, Waiting, Ended }; // the one that runs is ready
    bool Take() override { return eState == EState::Ended; }
    const void* Key() const override { return this; }
    const char* What() const override { return "the end of a thread"; }
    std::uint64_t Number() const override { return nNumber; }

    std::uint64_t nNumber = 0;
    EState eState = EState::Suspended;
    std::function<void()> entry;
    bool bStop = false;
    unsigned nRefused = 0; // blocking calls refused since it was stopped
    const void* lpWaitKey = nullptr;
    std::uint64_t qwDue = CWorld::NEVER;
    std::uint64_t qwWaitNumber = 0;
    const char* lpszWaitsFor = "";
    std::uint64_t qwWaitsFor = 0;
    EWake eWake = EWake::Woken;
    CCarrier* pCarrier = nullptr;
};

} // namespace sim

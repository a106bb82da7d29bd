// The process-wide lock handle of the link, and the gate that keeps the operations of one process
// apart.
#pragma once

#include "link/shared_word.h"
#include "platform/export.h"
#include "platform/types.h"

class CDAKVorn;

// Handle of the lock "NadoxUSBAPI", shared by all objects of the process. All ones when closed, 0
// after a failed creation; both count as no lock. Written by whoever holds the operation gate.
extern DAK_API HANDLE g_hDeviceMutex;

// Whether a handle is neither 0 nor all ones.
inline bool IsHandleOpen(HANDLE hObject) {
    return hObject != nullptr && hObject != INVALID_HANDLE_VALUE;
}

// Takes the link's lock, without a time-out; releases it, also where it is not held.
void TakeDeviceLock();
void ReleaseDeviceLock();

// Closes the lock handle, if it is open, and marks it closed.
void CloseDeviceLock();

// One operation at a time in the process. A frame holds the gate from its first step to its last; a
// job takes it over from DAKTransmitFiles and gives it up at its worker's end. While a job runs,
// its owner stands here.
class COperationGate {
  public:
    void Enter() { m_Lock.Enter(); }
    bool TryEnter() { return m_Lock.TryEnter(); }
    void Leave() { m_Lock.Leave(); }

    // For the start of a job: false, without the gate, as soon as a job runs.
    bool EnterUnlessJobRuns() {
        return m_Lock.EnterUnless([this] { return IsJobRunning(); });
    }

    // The holder's gate passes to a job of lpOwner.
    void BeginJob(CDAKVorn* lpOwner);
    // The job did not come about: the gate stays with the holder.
    void CancelJob();
    // The job's outcome stands; what is left is its closing. From here on a further job waits
    // instead of being refused.
    void CloseJob();
    // The job of lpOwner has ended: leaves the gate. Does nothing when lpOwner has no job.
    void EndJob(CDAKVorn* lpOwner);

    bool IsJobRunning() const { return LoadShared(m_dwJobState) == JOB_RUNNING; }
    // Whether a worker of lpOwner still uses the object or is just leaving the gate.
    bool IsJobOwner(const CDAKVorn* lpOwner) const {
        return LoadShared(m_lpJobOwner) == lpOwner || LoadShared(m_lpLeaving) == lpOwner;
    }

  private:
    enum : DWORD { JOB_NONE = 0, JOB_RUNNING = 1, JOB_CLOSING = 2 };

    CWordLock m_Lock;
    DWORD m_dwJobState = JOB_NONE;
    CDAKVorn* m_lpJobOwner = nullptr;
    CDAKVorn* m_lpLeaving = nullptr;
};

extern COperationGate g_OperationGate;

class COperationGateHold {
  public:
    COperationGateHold() { g_OperationGate.Enter(); }
    ~COperationGateHold() { g_OperationGate.Leave(); }
    COperationGateHold(const COperationGateHold&) = delete;
    COperationGateHold& operator=(const COperationGateHold&) = delete;
};

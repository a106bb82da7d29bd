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

// Takes the link's lock, without a time-out; false when there is none to be taken. Releases it,
// also where it is not held.
bool TakeDeviceLock();
void ReleaseDeviceLock();

// Closes the lock handle, if it is open, and marks it closed.
void CloseDeviceLock();

// One operation at a time in the process. A frame holds the gate from its first step to its last; a
// job takes it over from DAKTransmitFiles and gives it up at its worker's end. Each stay behind the
// gate is a turn with a number; a forked child finds the gate open, and no turn of its parent's.
class COperationGate {
  public:
    // Waits for the operations and the job ahead. False, without the gate, as long as a job has it
    // that its caller has given up.
    bool Enter(const CDAKVorn* lpHolder);
    // For the start of a job: false, without the gate, as soon as any job runs.
    bool EnterForJob(const CDAKVorn* lpHolder);
    // Waits whatever it waits for.
    void EnterAtLast(const CDAKVorn* lpHolder);
    bool TryEnter(const CDAKVorn* lpHolder);
    void Leave();

    // The number of the turn that an object has now, or 0.
    DWORD TurnOf(const CDAKVorn* lpHolder);
    // Releases the link's lock if it is held in this turn.
    void ReleaseHoldOf(DWORD dwTurn);

    // The holder's turn passes to a job.
    void BeginJob();
    // The job did not come about: the turn stays with the holder.
    void CancelJob();
    // The job of this turn was cut short and does not end: nobody waits for it any more.
    void GiveUpJob(DWORD dwTurn);
    // The job's outcome stands; what is left is its closing. From here on a further job waits
    // instead of being refused.
    void CloseJob();
    // The job of lpOwner has ended: leaves the gate. Does nothing when lpOwner has no job.
    void EndJob(const CDAKVorn* lpOwner);

    // Whether a worker of lpOwner still uses the object or is just leaving the gate.
    bool IsJobOwner(const CDAKVorn* lpOwner);

  private:
    enum : DWORD { JOB_NONE, JOB_RUNNING, JOB_GIVEN_UP, JOB_CLOSING };

    void ForgetParent();
    void BeginTurn(const CDAKVorn* lpHolder);
    void SetJobState(DWORD dwState);

    CWordLock m_Lock;
    CWordLock m_TurnLock; // of the words below, where more than one matters
    DWORD m_dwGeneration = 0;
    DWORD m_dwTurn = 0;
    DWORD m_dwJobState = JOB_NONE;
    const CDAKVorn* m_lpHolder = nullptr;
    const CDAKVorn* m_lpLeaving = nullptr;
};

extern COperationGate g_OperationGate;

class COperationGateHold {
  public:
    explicit COperationGateHold(const CDAKVorn* lpHolder)
        : m_bHolds(g_OperationGate.Enter(lpHolder)) {}
    ~COperationGateHold() {
        if (m_bHolds) {
            g_OperationGate.Leave();
        }
    }
    COperationGateHold(const COperationGateHold&) = delete;
    COperationGateHold& operator=(const COperationGateHold&) = delete;

    bool Holds() const { return m_bHolds; }

  private:
    bool m_bHolds;
};

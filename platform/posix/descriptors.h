// Owners of file descriptors.
#pragma once

#include <unistd.h>

#include <utility>

namespace platform::posix {

// Closes a descriptor at the end of a scope; -1 is none.
class CDescriptor {
  public:
    CDescriptor() = default;
    explicit CDescriptor(int nDescriptor) : m_nDescriptor(nDescriptor) {}
    ~CDescriptor() { Close(); }
    CDescriptor(CDescriptor&& other) noexcept
        : m_nDescriptor(std::exchange(other.m_nDescriptor, -1)) {}
    CDescriptor& operator=(CDescriptor&& other) noexcept {
        if (this != &other) {
            Close();
            m_nDescriptor = std::exchange(other.m_nDescriptor, -1);
        }
        return *this;
    }

    int Get() const { return m_nDescriptor; }
    int Release() { return std::exchange(m_nDescriptor, -1); }
    explicit operator bool() const { return m_nDescriptor >= 0; }

  private:
    void Close() {
        if (m_nDescriptor >= 0) {
            ::close(m_nDescriptor);
        }
    }

    int m_nDescriptor = -1;
};

// A descriptor that belongs to this process alone: a child that the application forks closes its
// copy, so that what hangs on the descriptor (a file lock, a connection) ends with this process and
// not with the last of its children. In such a child Get gives -1. A child that a raw system call
// makes behind the C library's back keeps its copy until it ends or starts another program.
class CPrivateDescriptor {
  public:
    explicit CPrivateDescriptor(CDescriptor descriptor) noexcept;
    ~CPrivateDescriptor();
    CPrivateDescriptor(const CPrivateDescriptor&) = delete;
    CPrivateDescriptor& operator=(const CPrivateDescriptor&) = delete;

    int Get() const { return m_nDescriptor; }
    void Close() noexcept;

  private:
    friend void CloseInForkedChild() noexcept;

    int m_nDescriptor;
    CPrivateDescriptor* m_pPrevious = nullptr;
    CPrivateDescriptor* m_pNext = nullptr;
};

} // namespace platform::posix

// The collections that stand in the library's signatures, where the application's own framework
// does not bring them: CArray for records, CString and CStringArray for narrow text. They hold what
// the library and its callers use of them. An object is used by one thread at a time.
#pragma once

#include "platform/types.h"

#if !defined(DAK_WITH_MFC)

#include <cstring>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// A growing array of plain records. New elements are zero. ARG_TYPE is how an element is handed in.
// The library grows arrays of the application's, and either side frees them, so their memory is
// the system's and not that of one side's runtime.
template <class TYPE, class ARG_TYPE = const TYPE&>
class CArray {
  public:
    CArray() = default;
    ~CArray() { RemoveAll(); }
    CArray(const CArray&) = delete;
    CArray& operator=(const CArray&) = delete;

    int GetSize() const { return m_nSize; }
    int GetUpperBound() const { return m_nSize - 1; }
    TYPE* GetData() { return m_pData; }
    const TYPE* GetData() const { return m_pData; }
    TYPE& operator[](int nIndex) { return m_pData[nIndex]; }
    const TYPE& operator[](int nIndex) const { return m_pData[nIndex]; }
    const TYPE& GetAt(int nIndex) const { return m_pData[nIndex]; }

    // Appends a zeroed element and assigns newElement to it. Returns its index, or -1 with the
    // array unchanged when there is no memory.
    int Add(ARG_TYPE newElement) {
        if (m_nSize == m_nMaxSize && !Grow()) {
            return -1;
        }
        m_pData[m_nSize] = newElement;
        return m_nSize++;
    }

    // Frees the data block: no data, size 0, capacity 0.
    void RemoveAll() {
        platform::FreeRecords(m_pData);
        m_pData = nullptr;
        m_nSize = 0;
        m_nMaxSize = 0;
    }

  private:
    static_assert(std::is_trivial_v<TYPE>);

    bool Grow() {
        if (m_nMaxSize > 0x3FFFFFFF) {
            return false;
        }
        const int nNewMax = m_nMaxSize == 0 ? 4 : m_nMaxSize * 2;
        auto* pNewData = static_cast<TYPE*>(
            platform::AllocateRecords(static_cast<SIZE_T>(nNewMax), sizeof(TYPE)));
        if (pNewData == nullptr) {
            return false;
        }
        for (int i = 0; i < m_nSize; ++i) {
            pNewData[i] = m_pData[i];
        }
        platform::FreeRecords(m_pData);
        m_pData = pNewData;
        m_nMaxSize = nNewMax;
        return true;
    }

    TYPE* m_pData = nullptr;
    int m_nSize = 0;
    int m_nMaxSize = 0;
};

// Narrow text.
class CString {
  public:
    CString() = default;
    CString(const char* lpsz) : m_str(lpsz == nullptr ? "" : lpsz) {}
    CString(std::string str) : m_str(std::move(str)) {}

    operator const char*() const { return m_str.c_str(); }
    int GetLength() const { return static_cast<int>(m_str.size()); }
    bool IsEmpty() const { return m_str.empty(); }
    void Empty() { m_str.clear(); }
    CString& operator+=(const char* lpsz) {
        m_str += lpsz;
        return *this;
    }

    // The first, last or further characters; counts beyond the text mean all of it, those below 0
    // none.
    CString Left(int nCount) const { return CString(m_str.substr(0, Bound(nCount))); }
    CString Right(int nCount) const { return CString(m_str.substr(m_str.size() - Bound(nCount))); }
    CString Mid(int nFirst) const { return CString(m_str.substr(Bound(nFirst))); }

    // The index of the last or of the next such character, or -1.
    int ReverseFind(char ch) const { return Index(m_str.rfind(ch)); }
    int Find(char ch, int nStart = 0) const { return Index(m_str.find(ch, Bound(nStart))); }

    void TrimRight(char ch) {
        while (!m_str.empty() && m_str.back() == ch) {
            m_str.pop_back();
        }
    }

    friend bool operator==(const CString& left, const char* right) { return left.m_str == right; }

  private:
    SIZE_T Bound(int nCount) const {
        const SIZE_T dwCount = nCount < 0 ? 0 : static_cast<SIZE_T>(nCount);
        return dwCount < m_str.size() ? dwCount : m_str.size();
    }
    static int Index(SIZE_T dwAt) {
        return dwAt == std::string::npos ? -1 : static_cast<int>(dwAt);
    }

    std::string m_str;
};

// A list of narrow text.
class CStringArray {
  public:
    int GetSize() const { return static_cast<int>(m_list.size()); }
    const CString& GetAt(int nIndex) const { return m_list[static_cast<SIZE_T>(nIndex)]; }
    const CString& operator[](int nIndex) const { return GetAt(nIndex); }
    int Add(const char* lpszNewElement) {
        m_list.emplace_back(lpszNewElement);
        return GetSize() - 1;
    }
    void RemoveAll() { m_list.clear(); }

  private:
    std::vector<CString> m_list;
};

#endif

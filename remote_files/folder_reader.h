// The entries of a folder listing, read out of its packages as they come.
#pragma once

#include "link/dak_vorn.h"
#include "platform/memory.h"

// Memory does not depend on the size of the folder: one package and the caller's array.
class CFolderReader {
  public:
    explicit CFolderReader(CDAKVorn& owner) : m_owner(owner) {}

    // The whole reply behind its head, of which the header and the number of entries are given.
    // Appends the entries to fileList; false when the reply breaks off, and those completed stay.
    bool Take(const DAKHEADER& head, DWORD dwEntries, CArray<_tagFileInfo, _tagFileInfo>& fileList);

  private:
    bool TakeEntry(_tagFileInfo& info);
    bool TakeBytes(void* lpField, DWORD dwBytes);
    bool TakeText(WCHAR* lpszField, DWORD dwChars);
    template <SIZE_T N>
    bool TakeText(WCHAR (&szField)[N]) {
        return TakeText(szField, static_cast<DWORD>(N));
    }
    bool FetchPackage();

    CDAKVorn& m_owner;
    platform::CLocalBuffer m_package;
    DWORD m_dwFill = 0;   // bytes that the latest read brought
    DWORD m_dwCursor = 0; // of the next unread one
    bool m_bLast = false; // a package has said that it is the last
};

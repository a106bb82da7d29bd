#include "link/path_text.h"

#include <algorithm>
#include <cstring>

CWordLock g_PathLock;

void SetPathText(char (&szTarget)[260], const char* lpszText) {
    const CWordLockHold hold(g_PathLock);
    const SIZE_T dwLength = std::min(std::strlen(lpszText), sizeof(szTarget) - 1);
    std::memcpy(szTarget, lpszText, dwLength);
    szTarget[dwLength] = '\0';
}

void GetPathText(char* lpszTarget, const char (&szSource)[260]) {
    const CWordLockHold hold(g_PathLock);
    std::memcpy(lpszTarget, szSource, sizeof(szSource));
}

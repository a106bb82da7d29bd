#include "link/path_text.h"

#include <cstring>

CWordLock g_PathLock;

void SetPathText(char (&szTarget)[260], const char* lpszText) {
    const CWordLockHold hold(g_PathLock);
    std::strncpy(szTarget, lpszText, sizeof(szTarget) - 1);
    szTarget[sizeof(szTarget) - 1] = '\0';
}

void GetPathText(char* lpszTarget, const char (&szSource)[260]) {
    const CWordLockHold hold(g_PathLock);
    std::strcpy(lpszTarget, szSource);
}

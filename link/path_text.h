// The path texts of an object: a job's worker writes them while GetCopyStatus and TerminateTransfer
// read them on other threads.
#pragma once

#include "link/shared_word.h"

// Guards the path texts of all objects. Held for a copy of 260 bytes and no longer.
extern CWordLock g_PathLock;

// Sets a path text; what does not fit is cut.
void SetPathText(char (&szTarget)[260], const char* lpszText);

// Copies a path text out; lpszTarget has 260 bytes.
void GetPathText(char* lpszTarget, const char (&szSource)[260]);

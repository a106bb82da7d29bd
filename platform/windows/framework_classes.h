// For builds with DAK_WITH_MFC: CString, CStringArray and CArray of the Microsoft Foundation
// Classes stand in the library's signatures, in place of those in platform/array_classes.h. The
// framework wants to be included ahead of the system's own headers.
#pragma once

#include <afxwin.h>

#include <afxtempl.h>

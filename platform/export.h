// Marks what the shared library exports. DAK_BUILDING_LIBRARY is defined while its own objects are
// compiled; a program that links them directly (the tests) sees plain declarations.
#pragma once

#if defined(_WIN32)
#if defined(DAK_BUILDING_LIBRARY)
#define DAK_API __declspec(dllexport)
#elif defined(DAK_STATIC)
#define DAK_API
#else
#define DAK_API __declspec(dllimport)
#endif
#else
#define DAK_API __attribute__((visibility("default")))
#endif

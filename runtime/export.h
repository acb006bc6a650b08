// ZOP_API marks what zopnative.dll exports. ZOP_BUILD: we are inside the library; ZOP_SHARED: a
// caller of the DLL; neither: a program that links the rooms themselves.
#pragma once

#if defined(ZOP_BUILD)
#define ZOP_API __declspec(dllexport)
#elif defined(ZOP_SHARED)
#define ZOP_API __declspec(dllimport)
#else
#define ZOP_API
#endif

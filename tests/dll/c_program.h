/* Compiled as C and as C++. */
#pragma once

#include "api/flat/zopnative.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Moves a directory, with a callback that counts items, cancels at one of them (0: never) or fails,
   through a structure of which the first bytes are known. 1: moved and committed; 0: cancelled and
   rolled back; -1: failed with the error, and rolled back. */
int32_t move_in_c(const wchar_t* source, const wchar_t* dest, int cancel_at, const wchar_t* failure,
                  size_t known, int* items, zop_error** error);

#ifdef __cplusplus
}
#endif

// Copies an encrypted file without decrypting it.
#pragma once

#include <string>

// Reads the raw form of source (runtime/files/path.h: long form) and writes it over target, an
// existing empty file of ours. The raw form passes through a temporary file in the directory, since
// both calls of the system run to their end by themselves. "Unable to read encrypted file (%s)",
// "Unable to write encrypted file (%s)".
void copyEncryptedFile(const std::wstring& source, const std::wstring& target,
                       const std::wstring& temporaryDirectory);

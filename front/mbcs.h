// Stepping and searching in text of the process locale one character at a time, so that a byte
// inside a multibyte character is never taken for a character of its own. A search returns null
// where it finds nothing, and where it comes to bytes that are no character of the locale.
#pragma once

/// First single-byte character equal to `c` (compared as a signed char); for 0 the terminating NUL.
char* MBstrchr(char* string, int c);
const char* MBstrchr(const char* string, int c);

/// Last one; it walks the whole text.
char* MBstrrchr(char* string, int c);

/// The character after the first; `string` itself at the NUL and at an invalid sequence.
char* MBNextChar(char* string);

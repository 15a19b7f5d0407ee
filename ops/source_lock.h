// The lock on the whole source that both ways of copying hold, and the check for room at the
// destination. All work on a connection that has the source open; sizes come from the server in
// units of 16 bytes and travel as two 32-bit halves of a byte count.
#pragma once

#include "front/types.h"

/// Length of the range that the first lock of the process took. Written by lockSourceHeader, read
/// by the unlock and by the transfer, whose last chunk it marks.
extern U32 highLockLength;
extern U32 lowLockLength;

/// Bytes of the units in which a server counts the length of a file.
inline constexpr U32 UNIT_SIZE = 16;

/// End of file in those units; false when the server does not say.
bool getUnits(I32 s, U32* pUnits);

/// Locks the whole file, waiting a second at a time while another process holds a lock or changes
/// its size. 0, or -1 after a message.
I32 lockSourceHeader(I32 s);

/// Releases the range of the recorded length. 0, or -1 after a message.
I32 unlockSourceHeader(I32 s);

/// Compares the source's size with the free space of the volume of `dest` on connection `d`, both
/// in the volume's blocks (in sixteens of blocks smaller than 16 bytes). 0 to go on, -1 after a
/// message or when the administrator declines.
I32 checkDestSpace(I32 s, I32 d, const char* dest);

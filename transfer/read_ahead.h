// How the worker of a copy waits for the fills of g_IoBuf.
#pragma once

enum class ReadAheadWait {
    Poll,  // it looks every 10 ms, as everybody does who has a CIoBuf of his own
    Event, // it goes on as soon as the fill has ended
};

// For g_IoBuf, from now on. Only the holder of the operation gate calls it, with no file open.
void SetReadAheadWait(ReadAheadWait eWait);

// The two console functions: erasing the characters before the cursor, and asking for one key.
// Nothing here knows what is printed or asked. Single-threaded.
#pragma once

// Erases the last `n` characters before the cursor. Nothing happens for n > 256. Does not flush.
void PrintClear(int n);

// One key from standard input, without echo and without waiting for Enter; -1 at the end of input.
int mygetch();

// Keys until one of y, Y, n, N: true for yes. The end of input is a no.
bool AskYesNo();

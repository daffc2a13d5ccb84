// The two console functions: erasing the characters before the cursor, and asking for one key. Does
// not know what is printed or asked. Single-threaded.
#pragma once

// Erases the last `n` characters before the cursor. Does nothing for n > 256. Does not flush.
void PrintClear(int n);

// One key from standard input, without echo and without waiting for Enter; -1 at the end of input.
int mygetch();

// Reads keys until one of y, Y, n, N: true for yes. The end of input counts as no.
bool AskYesNo();

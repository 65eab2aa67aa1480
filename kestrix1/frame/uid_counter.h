// The library-wide stamp counter behind TUid. Internal.
#pragma once

// Returns the counter's value and advances it, skipping 0.
int kxNextUid();

// Current value of the counter, and a way to place it (for tests of the wrap).
int kxPeekUid();
void kxSetUidCounter(int value);

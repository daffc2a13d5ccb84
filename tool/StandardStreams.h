// Opens standard streams that were closed when the process began. Otherwise the next open would get
// their numbers: text must never be printed to a card's node, nor keys be read from one.
// Single-threaded.
#pragma once

// Opens output and errors on /dev/null; call it before anything else is opened.
void OccupyOutputStreams();

// Opens input on /dev/null, which is at its end. Deliberate: later than the outputs, because an
// event node with descriptor 0 is a failure that the library has to see. See docs/decisions.md,
// "Event node".
void OccupyInputStream();

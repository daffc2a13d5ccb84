// Standard streams that were closed when the process began. Whatever is opened next would get their
// numbers: a card's node must never stand where text is printed to or keys are read from.
// Single-threaded.
#pragma once

// Output and errors, for which /dev/null stands in; before anything else is opened.
void OccupyOutputStreams();

// Input, which then has ended. Deliberate: later than the outputs, because an event node with
// descriptor 0 is a failure that the library has to see. See docs/decisions.md, "Event node".
void OccupyInputStream();

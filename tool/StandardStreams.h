// Standard streams that were closed when the process began. Whatever is opened next would get their
// numbers: text must never be printed to a card's node, or keys be read from one.
// Single-threaded.
#pragma once

// Gives output and errors to /dev/null; before anything else is opened.
void OccupyOutputStreams();

// Input, which then has ended. Deliberate: later than the outputs, because an event node with
// descriptor 0 is a failure that the library has to see. See docs/decisions.md, "Event node".
void OccupyInputStream();

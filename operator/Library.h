// The capture library's instance for as long as it is needed, and the standard streams before it.
// One per process, on the thread that asks the cards.
#pragma once

namespace qvo {

// Streams 0 to 2 lead somewhere from then on: without one, the next file that is opened would get
// its number, a card's node for instance, and what is printed would go there.
void OccupyStandardStreams();

// From construction to destruction the library has its list of channels.
class Library {
  public:
    Library();
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

}  // namespace qvo

// Holds the capture library's instance, and first opens closed standard streams. One per process,
// on the thread that queries the cards.
#pragma once

namespace qvo {

// From then on streams 0 to 2 are open. If one were closed, the next file that is opened, for
// example a card's node, would get its number, and output would be written there.
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

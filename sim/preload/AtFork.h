// fork(): no lock of the simulation is held by a thread that the child does not have.
#pragma once

namespace qvsim::door {

// From the first call on. Any thread inside the door.
void BeReadyForFork();

}  // namespace qvsim::door

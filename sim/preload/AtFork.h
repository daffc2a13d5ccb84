// fork(): makes sure that no thread that is missing in the child holds a lock of the simulation.
#pragma once

namespace qvsim::door {

// Takes effect with the first call. Any thread inside the door.
void BeReadyForFork();

}  // namespace qvsim::door

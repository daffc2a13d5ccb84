// Requests of a thread whose waits a signal may end.
#pragma once

#include <csignal>

#include "Protocol.h"

namespace qvsim::door {

// `outer`: signals that this mask does not block end a wait; null when the program handles none, so
// that a wait sleeps until its end. Any thread inside the door.
Answer Serve(Model& model, OpenFile& file, uint32_t code, uint64_t address, CallerMemory& memory,
             const sigset_t* outer);
// The same for an open of a node; null and an errno when it is refused.
std::shared_ptr<OpenFile> Open(Model& model, const std::string& node, int& error,
                               const sigset_t* outer);
// In a child after fork(), with the model's lock held: no thread sleeps in the child.
void ForgetSleepers();

}  // namespace qvsim::door

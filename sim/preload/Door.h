// Door 1: the cards live in the process of the program that uses them.
//
// Interposed libc functions (Interpose.cpp) come here with what concerns a simulated node. Any
// thread. Two ways to get a model: a preload object takes the directory that QVSIM_STATE names, a
// test program calls Attach().
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "Model.h"

namespace qvsim {

// Null when this process has no simulated cards.
std::shared_ptr<Model> CurrentModel();

// Test programs only: turns the cards of a state directory on; an empty text or what went wrong.
// Detach() ends every wait in them; descriptors that are still open answer ENODEV from then on.
std::string Attach(const std::string& dir);
void Attach(std::shared_ptr<Model> model);
void Detach();

namespace door {

// How many simulated nodes are open: lets every close and ioctl of a process without any pass.
extern constinit std::atomic<int> g_openNodes;

// How the interposed functions reach the kernel.
int RealOpen(const char* path, int flags);
int RealClose(int fd);

// The descriptor, or -1 and errno.
int OpenNode(const std::shared_ptr<Model>& model, const char* path, int flags);
// True when `fd` is a simulated node that is still in the table.
bool IsNode(int fd);
// The answer of close(2) or ioctl(2); only for descriptors with IsNode().
int CloseNode(int fd);
int Request(int fd, unsigned long code, void* argument);

// Closes what is still open, as the kernel does for a process that ends.
void CloseAll();

}  // namespace door
}  // namespace qvsim

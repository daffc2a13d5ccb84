// A global Instance, made before main() and destroyed after it, in a program that links the
// archive: nothing of the library may be gone by then. The sanitizers see it; the exit status says
// the rest.
#include <cstdio>
#include <cstdlib>

#include "QVCapture.hpp"
#include "support/SimRig.h"

namespace {

qvsim::SimRig* g_rig = nullptr;

struct Watched {
    Watched() {
        g_rig = new qvsim::SimRig;
        g_rig->Add(qvsim::Pelix().Channels(1));
        g_rig->AttachInMemory();
    }
    ~Watched() {
        const size_t files = g_rig->Cards().CountAlive().files;
        delete g_rig;
        if (files == 0) return;
        fprintf(stderr, "%zu nodes are still open\n", files);
        _Exit(1);
    }
};

// Destroyed in the opposite order: the instance, then the cards that it used.
Watched g_cards;
qvcapture::Instance g_instance;

}  // namespace

int main() {
    if (!g_instance.HasEvents() || g_instance.Channels().size() != 1) return 1;
    qvcapture::Channel channel("/dev/video0");
    const qvcapture::Worker worker(channel);
    return worker.Status() ? 0 : 1;
}

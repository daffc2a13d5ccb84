// What the callback of a media capture saw, and one thing that it does from inside.
#pragma once

#include <sys/prctl.h>

#include <functional>
#include <string>
#include <utility>

#include "support/Recorder.h"

// `Item` is one delivery, copied. Taken on the capture's thread, read by the test.
template <class Item, class Context>
class CaptureLog : public qvtest::Recorder<Item> {
  public:
    // Runs once, on the capture's thread, before that delivery counts. Set both before the start.
    std::function<void(Context*)> inside;
    Context* capture = nullptr;

    void Take(Item item) {
        if (const auto act = std::exchange(inside, nullptr)) act(capture);
        this->Add(std::move(item));
    }
};

inline std::string ThreadName() {
    char name[16] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return name;
}

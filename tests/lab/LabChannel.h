// Channels of the library over the lab's devices, and the test in which none of them stays open.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "QVCapture.h"
#include "lab/Companion.h"
#include "lab/LabDevices.h"

namespace lab {

// The library is set up around each test, which must leave no descriptor open.
class LabChannelTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(QV_RESULT_OK, fake::Tavo::Get().Supply());
        QVCaptureInitInstance();
        descriptors = DescriptorsOpen();
    }
    void TearDown() override {
        EXPECT_EQ(descriptors, DescriptorsOpen());
        QVCaptureExitInstance();
    }

    // A channel that is closed with its holder.
    struct Closer {
        void operator()(void* channel) const { QVCloseChannel(channel); }
    };
    using Channel = std::unique_ptr<void, Closer>;
    static Channel Usb(const char* serial) { return Channel(LabDevices::OpenChannel(serial)); }

    int descriptors = 0;
};

}  // namespace lab

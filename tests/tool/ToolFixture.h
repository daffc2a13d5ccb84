// The pieces of qvcap-upgrade inside the test's own process, over simulated cards: a folder for
// packages that is the current directory, the tool's state as at its start, output captured.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Inventory.h"
#include "QVCapture.h"
#include "ToolState.h"
#include "ToolTexts.h"
#include "support/PackageBuilder.h"
#include "support/SimRig.h"
#include "support/TempFolder.h"

namespace qvtest {

// All bits set.
inline const QV_CHANNEL kInvalidChannel = reinterpret_cast<QV_CHANNEL>(intptr_t{-1});

class ToolFixture : public testing::Test {
  protected:
    ToolFixture() {
        m_before = std::filesystem::current_path();
        std::filesystem::current_path(m_folder);
        g_dwCMD = 0;
        g_nBoardIndex = kAnyIndex;
        g_nChannelIndex = kAnyIndex;
        g_nDevicesNum = 0;
        g_nDevicesNeedUpgrade = 0;
        for (_QVCAP_UPGRADE_LIST_INFO_& record : g_arrChannsInfo) record = {};
    }

    ~ToolFixture() override {
        if (m_attached) QVCaptureExitInstance();
        rig.Detach();
        ExitQVFList();
        g_nQVFFileNum = 0;
        std::filesystem::current_path(m_before);
    }

    // Cards present, library up, packages of the folder listed.
    void Start() {
        rig.Attach();
        m_attached = QVCaptureInitInstance();
        ASSERT_EQ(0, InitialQVFList());
        rig.ClearJournal();
    }

    template <class Act>
    std::string Printed(Act act) {
        testing::internal::CaptureStdout();
        act();
        std::fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }

    qvsim::SimRig rig;

  private:
    std::filesystem::path m_before;
    const TempFolder m_temporary{"qvunit"};
    const std::filesystem::path m_folder = m_temporary.Path();
    bool m_attached = false;
};

}  // namespace qvtest

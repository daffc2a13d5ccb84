// The process-wide registry of PCIe capture channels and the shared event node.
//
// Static data without a lock: Init, EnumDevice and Exit run on one thread while no other thread
// looks up a channel. Prints nothing; a node that is not a capture channel is skipped silently.
#pragma once

#include "QVCaptureTypes.h"
#include "base/Ref.h"

namespace qv {
class EventNodeFile;
}

class CQVCaptureControlBase {
  public:
    // Empties the table and opens /dev/qv-event unless it is already open; false when that fails.
    static bool Init();
    // Empties the table and closes the event node.
    static void Exit();
    // Rebuilds the table in the order of the node numbers; false only when /dev cannot be scanned.
    static bool EnumDevice();

    static int GetChannelCount() { return m_nChannelCount; }

    // QV_RESULT_BAD_ARGUMENT for an index outside the table or a null out.
    static QV_RESULT GetChannelInfoByIndex(int index, _QVCAP_CHANNEL_INFO* out);
    static QV_RESULT GetFamilyInfoByIndex(int index, _QVCAP_PELIX_CAPTURE_INFO* out);
    static QV_RESULT GetDevicePath(int index, char* out);  // at most kPathSize bytes

    // Descriptor of the event node, -1 when it is not open.
    static int EventDescriptor() { return m_hEventFD; }
    // The same as a reference that keeps the file open; null when it is not open.
    static qv::Ref<qv::EventNodeFile> EventNodeReference();

    static constexpr int kPathSize = 16;

  private:
#pragma pack(push, 1)
    struct ChannelRecord {
        char path[kPathSize];  // empty when the record is
        _QVCAP_CHANNEL_INFO info;
        _QVCAP_PELIX_CAPTURE_INFO family;
    };
#pragma pack(pop)
    static_assert(sizeof(ChannelRecord) == 257);

    static void Empty(int count);
    static bool Probe(int node, ChannelRecord* record);
    static const ChannelRecord* Find(int index);

    static ChannelRecord m_arrChannelInfo[QV_MAX_CHANNELS];  // valid: 0 ... count-1
    static int m_nChannelCount;
    static int m_hEventFD;
    // Owns m_hEventFD. A plain pointer that holds a reference: nothing here may be destroyed before
    // a program's static objects, because their destructors may still call Exit().
    static qv::EventNodeFile* m_eventNode;
};
